"""The virtual recorder: how its image is put together, how its machine is driven, how media for it are made.

Start with machine.py; image.py and packages.py say what the machine boots, medium.py what goes into its slots.
"""
