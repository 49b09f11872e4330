// A thread that a stop had to leave behind, because a call of a library does not return.
//
// It may still be in that library. Exit handlers and the destructors of statics would take the library's state from
// under it, so the process must end without them.
#ifndef QMLOGCACHE_HOST_SERVICE_THREAD_LEFT_BEHIND_H_
#define QMLOGCACHE_HOST_SERVICE_THREAD_LEFT_BEHIND_H_

// Any thread, takes no lock. There is no way back.
void NoteThreadLeftBehind() noexcept;

// The last call of main, on its thread: gives iStatus back when no thread has been left behind. Else it writes out the
// standard streams and ends the process with that status.
int ExitStatus(int iStatus) noexcept;

#endif  // QMLOGCACHE_HOST_SERVICE_THREAD_LEFT_BEHIND_H_
