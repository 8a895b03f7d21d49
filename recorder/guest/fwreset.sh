#!/bin/sh
# Stands in for the reset of the FireWire bus: notes when it was asked for, and with what.
read -r seconds _ </proc/uptime
echo "$seconds reset $*" >>/var/log/firewire.log
