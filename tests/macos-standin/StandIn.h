// Stands in on Linux for what the runner calls on macOS, so that the sources for macOS can be
// tested here: a kqueue that watches one process, and the extensions of posix_spawn and of the
// clocks. Whatever is known to differ there and to matter is played: a stopped child is reported as
// an ended one is, and under an ignored SIGCHLD a wait that blocks lasts until the last child has
// ended. It is no proof of what macOS does.

#pragma once

namespace standin {

/// What becomes of a watch for the end of a process.
enum class Watch {
  asked,    ///< it is there and tells
  tooLate,  ///< the process has ended before, and the watch is refused
  silent,   ///< the process has ended before, and the watch is there and never tells
};

/// Each watch from now on becomes `watch`.
void watchesAre(Watch watch);

/// The next `times` questions for an ended process that don't block find it still ending.
void endsAreLate(int times);

}  // namespace standin
