// The command's part of the object runtime: none. Nobody in its process looks a class up by name,
// and so the runtime's library is not loaded.

#include "ObjectRuntimeRegistration.h"

namespace VarnScriptRepository {

void registerWithObjectRuntime(void (*)()) {}

}  // namespace VarnScriptRepository
