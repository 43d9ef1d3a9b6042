// Looks the library's class up in the object runtime. The archive has to bring its registration
// along, though nothing here names it.

#include <cstdio>

#include "VarnScriptRepository/ScriptRepositoryProcessor.h"

extern "C" void* objc_lookUpClass(const char* name);

int agentMain(int argc, char** argv);

int main(int argc, char** argv) {
  std::puts(objc_lookUpClass("ScriptRepositoryProcessor") != nullptr ? "registered" : "missing");
  return agentMain(argc, argv);
}
