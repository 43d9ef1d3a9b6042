// Makes the removal of dropped scripts callable by name: the class `ScriptRepositoryProcessor` of
// the platform's object runtime, with one class method, "removeServerRemovedScripts".

#pragma once

namespace VarnScriptRepository {

/// Registers the class with its one class method, which calls `removeServerRemovedScripts`, and
/// keeps the image that this is part of loaded until the process ends. Does nothing when the
/// runtime knows a class of that name. For one thread, while the library is being loaded.
void registerWithObjectRuntime(void (*removeServerRemovedScripts)());

}  // namespace VarnScriptRepository
