// What <spawn.h> has on macOS beyond this system's own.

#pragma once

#include_next <spawn.h>

constexpr short POSIX_SPAWN_CLOEXEC_DEFAULT = 0x4000;

extern "C" int posix_spawn_file_actions_addinherit_np(posix_spawn_file_actions_t* actions, int fd);

// As newer versions of that system declare it.
extern "C" [[deprecated]] int posix_spawn_file_actions_addchdir_np(
    posix_spawn_file_actions_t* actions, const char* directory) noexcept;
