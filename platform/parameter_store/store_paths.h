#ifndef MEDIAD_PLATFORM_STORE_PATHS_H
#define MEDIAD_PLATFORM_STORE_PATHS_H

// Where the store lives on the machine. Everything is below /run: it survives every process, and no reboot.

// Made with mode 0755 when it is missing: everybody may reach the socket, only root puts anything beside it.
inline constexpr char kStoreDirectory[] = "/run/mediad";

// The host's socket, mode 0666: who may write is decided by the peer's credentials, not by the file.
inline constexpr char kStoreSocket[] = "/run/mediad/store.sock";
inline constexpr char kStoreSocketFresh[] = "/run/mediad/store.sock.new"; // bound and listening before it gets its name

// Held with flock for as long as a process hosts the store.
inline constexpr char kStoreLock[] = "/run/mediad/store.lock";

// The values, for the next host (store_journal.h draws the format).
inline constexpr char kStoreValues[] = "/run/mediad/store.values";

// Members may write parameters, as root may.
inline constexpr char kStoreWriterGroup[] = "mediad";

#endif
