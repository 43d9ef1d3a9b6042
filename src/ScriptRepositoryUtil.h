// The process runner: one free function, no state, no thread and no signal handler of its own.
// Calls on several threads are independent.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace VarnScriptRepository {

/// Runs the program `launchPath` with `commandPath` and then `arguments` as its arguments, in the
/// directory `executeInDirectory`, and waits until it has ended.
///
/// The result is the exit status (the signal's number for a program that a signal ended) and all
/// that the program wrote to standard output and standard error, in the order written. Output is
/// taken in chunks of what the pipe holds; a chunk that is not UTF-8 is dropped. What a background
/// descendant writes after the program has ended is not part of it, and does not delay the return.
///
/// After `timeoutIn` seconds the program's process group is asked to terminate, once; the call
/// still waits for the program. With a limit of zero or less it runs without a limit.
///
/// Both members are absent when the program was not started: nothing exists at `launchPath`, or the
/// start failed. The log tells which.
std::pair<std::optional<std::int32_t>, std::optional<std::string>> shell(
    const std::string& launchPath, const std::string& commandPath,
    const std::vector<std::string>& arguments, const std::string& executeInDirectory,
    std::int64_t timeoutIn);

}  // namespace VarnScriptRepository
