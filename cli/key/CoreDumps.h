// What is in this process's memory stays there: no core dump takes it to a disk.

#pragma once

namespace VarnScripts::keys {

/// From now on nothing writes this process's memory to a core dump and, where the system has that,
/// no process of the same user can look into it. Called before a secret is read; programs that are
/// started afterwards have no core dumps either. Any thread.
void forbidCoreDumps() noexcept;

}  // namespace VarnScripts::keys
