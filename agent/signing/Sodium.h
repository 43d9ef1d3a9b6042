// The library behind keys and signatures, made ready.

#pragma once

namespace AgentUtils::signing {

/// Called before anything else of the library; every call after the first costs nothing. Throws
/// `std::runtime_error` when the system gives it no random numbers. Any thread.
void startSodium();

}  // namespace AgentUtils::signing
