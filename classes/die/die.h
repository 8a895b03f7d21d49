#ifndef MEDIAD_CLASSES_DIE_DIE_H
#define MEDIAD_CLASSES_DIE_DIE_H

// The ends of the process. Any thread may call die while the main thread leaves; exactly one of them runs the process's
// exit handlers, and once somebody has died the status is 1.

// Fatal error: writes `message` as it stands to standard error, stops the daemon and ends the process with status 1.
[[noreturn]] void die(const char* message);

// The last thing main does: from here on a die on another thread ends the process at once. Returns `status` for main to
// return, and does not return at all when another thread is already ending the process.
int leaveMain(int status);

#endif
