// The exit statuses of the command. Other programs read them.

#pragma once

namespace VarnScripts {

inline constexpr int kExitSuccess = 0;   ///< the script was accepted; the command did its work
inline constexpr int kExitRejected = 1;  ///< the script ran and was not accepted
inline constexpr int kExitUsage = 2;     ///< usage or settings error
inline constexpr int kExitNotRun = 3;    ///< the script was not run; the work could not be done
inline constexpr int kExitPending = 4;   ///< of a check: there is something to be published

}  // namespace VarnScripts
