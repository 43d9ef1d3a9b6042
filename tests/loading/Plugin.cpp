// A shared object of somebody's own that embeds the library's units and unloads like any other.

#include "VarnScriptRepository/ScriptRepositoryProcessor.h"

extern "C" [[gnu::visibility("default")]] void processScript(const char* scriptID) {
  static_cast<void>(VarnScriptRepository::ScriptRepositoryProcessor(scriptID).processScript());
}
