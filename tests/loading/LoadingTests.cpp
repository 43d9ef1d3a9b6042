// The library as an agent loads it at run time: the class and its one method found by name in the
// object runtime, and what loading it once more does.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <objc/message.h>
#include <objc/runtime.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "AgentSettings.h"
#include "support/TemporaryDirectory.h"

namespace {

constexpr const char* kDeferral =
    "Removing Local Scripts, Script Repo Meta Data Not available, will be processed later";

void* load(const char* image = VARN_LIBRARY) { return ::dlopen(image, RTLD_NOW | RTLD_LOCAL); }

class Loading : public testing::Test {
 protected:
  /// Gives the loaded library's own utilities module its settings, as a host that links nothing.
  void giveSettings(void* library) {
    const auto settings = reinterpret_cast<decltype(&AgentUtils::settings)>(
        ::dlsym(library, "_ZN10AgentUtils8settingsEv"));
    const auto configure = reinterpret_cast<decltype(&AgentUtils::configure)>(
        ::dlsym(library, "_ZN10AgentUtils9configureENS_13AgentSettingsE"));
    ASSERT_NE(settings, nullptr);
    ASSERT_NE(configure, nullptr);
    EXPECT_EQ(settings().basePath, "");
    AgentUtils::AgentSettings given;
    given.basePath = directory + "/agent";
    given.dataPath = directory + "/data";
    given.customerID = "7";
    configure(given);
  }

  /// Calls the class method by name, as the runtime's messaging does, and gives what was written to
  /// standard error.
  static std::string callByName() {
    const Class found = objc_lookUpClass("ScriptRepositoryProcessor");
    const SEL selector = sel_registerName("removeServerRemovedScripts");
    const id receiver = reinterpret_cast<id>(found);
    testing::internal::CaptureStderr();
    const IMP method = objc_msg_lookup(receiver, selector);
    reinterpret_cast<void (*)(id, SEL)>(reinterpret_cast<void (*)()>(method))(receiver, selector);
    return testing::internal::GetCapturedStderr();
  }

  const TemporaryDirectory temporary;
  const std::string& directory = temporary.path();
};

TEST_F(Loading, IsWhatMakesTheClassKnown) {
  ASSERT_EQ(objc_lookUpClass("ScriptRepositoryProcessor"), nullptr);

  ASSERT_NE(load(), nullptr) << ::dlerror();

  EXPECT_NE(objc_lookUpClass("ScriptRepositoryProcessor"), nullptr);
}

TEST_F(Loading, NeedsNoSettings) {
  testing::internal::CaptureStderr();
  void* const library = load();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  ASSERT_NE(library, nullptr);
  EXPECT_TRUE(std::filesystem::is_empty(directory));
}

TEST_F(Loading, RegistersOneClassMethodAndNothingElse) {
  ASSERT_NE(load(), nullptr);
  const Class found = objc_lookUpClass("ScriptRepositoryProcessor");
  ASSERT_NE(found, nullptr);

  const auto methodsOf = [](Class owner, unsigned& count) {
    return std::unique_ptr<Method, decltype(&std::free)>(class_copyMethodList(owner, &count),
                                                         &std::free);
  };
  unsigned classMethods = 0;
  unsigned instanceMethods = 0;
  const auto methods = methodsOf(object_getClass(reinterpret_cast<id>(found)), classMethods);
  const auto others = methodsOf(found, instanceMethods);

  ASSERT_EQ(classMethods, 1U);
  EXPECT_EQ(instanceMethods, 0U);
  const Method method = methods.get()[0];
  EXPECT_STREQ(sel_getName(method_getName(method)), "removeServerRemovedScripts");
  EXPECT_STREQ(method_getTypeEncoding(method), "v@:");
  EXPECT_EQ(method_getNumberOfArguments(method), 2U);
}

TEST_F(Loading, LetsTheMethodBeCalledByName) {
  void* const library = load();
  ASSERT_NE(library, nullptr);
  giveSettings(library);

  const std::string log = callByName();

  EXPECT_THAT(log, testing::HasSubstr(kDeferral));
  EXPECT_THAT(log, testing::HasSubstr("ScriptRepositoryProcessor"));
  EXPECT_THAT(log, testing::HasSubstr("removeServerRemovedScripts()"));
  // The operation was put off: nothing was made.
  EXPECT_TRUE(std::filesystem::is_empty(directory));
}

TEST_F(Loading, TwiceIsHarmless) {
  void* const first = load();
  ASSERT_NE(first, nullptr);
  const Class registered = objc_lookUpClass("ScriptRepositoryProcessor");
  ASSERT_NE(load(), nullptr);
  giveSettings(first);

  EXPECT_EQ(objc_lookUpClass("ScriptRepositoryProcessor"), registered);
  EXPECT_THAT(callByName(), testing::HasSubstr(kDeferral));
}

TEST_F(Loading, AgainAfterAnUnloadIsHarmless) {
  void* const first = load();
  ASSERT_NE(first, nullptr);
  ASSERT_EQ(::dlclose(first), 0);
  void* const second = load();
  ASSERT_NE(second, nullptr);
  giveSettings(second);

  EXPECT_THAT(callByName(), testing::HasSubstr(kDeferral));
}

TEST_F(Loading, LeavesTheMethodCallableAfterAnUnload) {
  void* const library = load();
  ASSERT_NE(library, nullptr);
  giveSettings(library);
  ASSERT_EQ(::dlclose(library), 0);

  EXPECT_THAT(callByName(), testing::HasSubstr(kDeferral));
}

TEST_F(Loading, OfAPluginThatEmbedsTheUnitsLeavesTheMethodCallableAfterAnUnload) {
  void* const plugin = load(VARN_PLUGIN);
  ASSERT_NE(plugin, nullptr) << ::dlerror();
  giveSettings(plugin);
  ASSERT_EQ(::dlclose(plugin), 0);

  EXPECT_THAT(callByName(), testing::HasSubstr(kDeferral));
}

TEST_F(Loading, OfASecondCopyUnderAnotherNameIsHarmless) {
  void* const library = load();
  ASSERT_NE(library, nullptr);
  giveSettings(library);
  const Class registered = objc_lookUpClass("ScriptRepositoryProcessor");
  std::filesystem::copy_file(VARN_LIBRARY, directory + "/copy.so");

  ASSERT_NE(::dlopen((directory + "/copy.so").c_str(), RTLD_NOW | RTLD_LOCAL), nullptr)
      << ::dlerror();
  std::filesystem::remove(directory + "/copy.so");

  EXPECT_EQ(objc_lookUpClass("ScriptRepositoryProcessor"), registered);
  EXPECT_THAT(callByName(), testing::HasSubstr(kDeferral));
}

TEST_F(Loading, TakesAClassOfThatNameThatIsThereAlready) {
  const Class taken = objc_allocateClassPair(nullptr, "ScriptRepositoryProcessor", 0);
  ASSERT_NE(taken, nullptr);
  objc_registerClassPair(taken);

  ASSERT_NE(load(), nullptr);

  EXPECT_EQ(objc_lookUpClass("ScriptRepositoryProcessor"), taken);
}

}  // namespace
