// A shared object that keeps itself loaded when it is asked to.

#include "platform/Image.h"

extern "C" [[gnu::visibility("default")]] void keepThisImage() {
  static const int here = 0;
  VarnScriptRepository::platform::keepImageOf(&here);
}
