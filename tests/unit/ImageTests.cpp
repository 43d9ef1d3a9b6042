// A shared object that asks for it stays loaded, whoever closes it.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include "platform/Image.h"

namespace {

/// Whether the shared object is loaded.
bool isLoaded() {
  void* const image = ::dlopen(VARN_IMAGE_PLUGIN, RTLD_LAZY | RTLD_NOLOAD);
  if (image != nullptr) ::dlclose(image);
  return image != nullptr;
}

TEST(Image, GoesWithWhoeverClosesItUnlessItIsKept) {
  void* image = ::dlopen(VARN_IMAGE_PLUGIN, RTLD_LAZY | RTLD_LOCAL);
  ASSERT_NE(image, nullptr) << ::dlerror();
  ASSERT_EQ(::dlclose(image), 0);
  ASSERT_FALSE(isLoaded());

  image = ::dlopen(VARN_IMAGE_PLUGIN, RTLD_LAZY | RTLD_LOCAL);
  ASSERT_NE(image, nullptr) << ::dlerror();
  const auto keep = reinterpret_cast<void (*)()>(::dlsym(image, "keepThisImage"));
  ASSERT_NE(keep, nullptr);
  keep();
  ASSERT_EQ(::dlclose(image), 0);
  EXPECT_TRUE(isLoaded());
}

TEST(Image, OfTheProgramAndOfNoImageAreLeftAlone) {
  static const int inTheProgram = 0;
  VarnScriptRepository::platform::keepImageOf(&inTheProgram);
  const int onTheStack = 0;
  VarnScriptRepository::platform::keepImageOf(&onTheStack);
  EXPECT_FALSE(isLoaded());
}

}  // namespace
