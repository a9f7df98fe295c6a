// Reaping of child processes that nobody waits for.
#ifndef ZU_SUPPORT_CHILD_REAPER_H_
#define ZU_SUPPORT_CHILD_REAPER_H_

#include <sys/types.h>

namespace zu {

// Takes over a child of this process: it is reaped soon after it ends, by its
// own identifier only, on a thread of ours that lives while there is something
// to reap. Returns at once. Hosts that reap every child themselves, or ignore
// SIGCHLD, get there first: then there is nothing to do.
void ReapWhenItEnds(pid_t child);

// Ends the thread, whatever is left to reap, and waits for it. For the
// library's unload.
void StopChildReaper();

}  // namespace zu

#endif  // ZU_SUPPORT_CHILD_REAPER_H_
