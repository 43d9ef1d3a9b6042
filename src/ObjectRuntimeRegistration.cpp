#include "ObjectRuntimeRegistration.h"

#include <objc/runtime.h>

#include "platform/Image.h"

namespace VarnScriptRepository {
namespace {

constexpr const char* kClassName = "ScriptRepositoryProcessor";
constexpr const char* kSelector = "removeServerRemovedScripts";
constexpr const char* kTypes = "v@:";  // returns nothing; the class and the selector

/// What the class method calls; set before the class can be found.
void (*removal)() = nullptr;

void callRemoval(id /*self*/, SEL /*selector*/) { removal(); }

}  // namespace

void registerWithObjectRuntime(void (*removeServerRemovedScripts)()) {
  // Where the runtime has no NSObject the class is a root class.
  const Class superclass = objc_lookUpClass("NSObject");
  // Nil when the name is taken: by an earlier load, whose method does the same.
  const Class registered = objc_allocateClassPair(superclass, kClassName, 0);
  if (registered == nullptr) return;
  // The runtime can't forget a class, so the method has to be there from now on, also when a plugin
  // that embeds it is unloaded.
  platform::keepImageOf(&removal);
  removal = removeServerRemovedScripts;
  // Class methods live in the class of the class.
  const Class metaclass = object_getClass(reinterpret_cast<id>(registered));
  // The runtime takes every method as one function type; the detour tells the compiler that the
  // difference is known.
  const auto method = reinterpret_cast<void (*)()>(callRemoval);
  class_addMethod(metaclass, sel_registerName(kSelector), reinterpret_cast<IMP>(method), kTypes);
  objc_registerClassPair(registered);
}

}  // namespace VarnScriptRepository
