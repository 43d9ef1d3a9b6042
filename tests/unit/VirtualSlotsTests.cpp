// The order of the virtual functions of the three overridable classes: subclasses of an agent that
// were compiled against one build must work with the next.

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "ScriptRepositoryLocalMetaProcessor.h"
#include "ScriptRepositoryMetaProcessor.h"
#include "VarnScriptRepository/ScriptRepositoryLocalMeta.h"

namespace {

using namespace VarnScriptRepository;

/// The slot of a virtual function, from its member pointer: in the Itanium C++ ABI the first word
/// is the offset into the table of virtual functions plus 1; on 64-bit ARM the mark is in the
/// second word instead.
template <class Function>
std::size_t slot(Function function) {
  std::array<std::uintptr_t, 2> words{};
  static_assert(sizeof function == sizeof words);
  std::memcpy(words.data(), &function, sizeof words);
#if defined(__aarch64__)
  EXPECT_EQ(words[1] & 1U, 1U) << "not virtual";
  return words[0] / sizeof(void*);
#else
  EXPECT_EQ(words[0] & 1U, 1U) << "not virtual";
  return (words[0] - 1) / sizeof(void*);
#endif
}

TEST(VirtualSlots, OfTheMetadataProcessor) {
  using Class = ScriptRepositoryMetaProcessor;
  EXPECT_EQ(slot(&Class::scriptRepoMetaData), 0U);
  EXPECT_EQ(slot(&Class::setScriptRepoMetaData), 1U);
  EXPECT_EQ(slot(&Class::modifyScriptRepoMetaData), 2U);
  EXPECT_EQ(slot(&Class::scriptRepoAllMetaData), 3U);
  EXPECT_EQ(slot(&Class::setScriptRepoAllMetaData), 4U);
  EXPECT_EQ(slot(&Class::modifyScriptRepoAllMetaData), 5U);
  EXPECT_EQ(slot(&Class::getModifiedTime), 6U);
  EXPECT_EQ(slot(&Class::getServerScriptRepoMeta), 7U);
  EXPECT_EQ(slot(&Class::getScriptRepoForID), 8U);
  EXPECT_EQ(slot(&Class::loadScriptRepoMetaData), 9U);
  EXPECT_EQ(slot(&Class::getAllAvailableScriptIDs), 10U);
  EXPECT_EQ(slot(&Class::downloadScriptRepoMeta), 11U);
}

TEST(VirtualSlots, OfTheLocalRecord) {
  using Class = ScriptLocalData;
  EXPECT_EQ(slot(&Class::version), 0U);
  EXPECT_EQ(slot(&Class::setVersion), 1U);
  EXPECT_EQ(slot(&Class::modifyVersion), 2U);
  EXPECT_EQ(slot(&Class::scriptPath), 3U);
  EXPECT_EQ(slot(&Class::setScriptPath), 4U);
  EXPECT_EQ(slot(&Class::modifyScriptPath), 5U);
  EXPECT_EQ(slot(&Class::encode), 6U);
}

TEST(VirtualSlots, OfTheLocalMetaProcessor) {
  using Class = ScriptRepositoryLocalMetaProcessor;
  EXPECT_EQ(slot(&Class::getScriptVersion), 0U);
  EXPECT_EQ(slot(&Class::setScriptVersion), 1U);
  EXPECT_EQ(slot(&Class::getScriptPath), 2U);
  EXPECT_EQ(slot(&Class::setScriptPath), 3U);
  EXPECT_EQ(slot(&Class::removeScriptData), 4U);
  EXPECT_EQ(slot(&Class::getAllScriptIDs), 5U);
}

TEST(VirtualSlots, OfClassesThatCanBeSubclassed) {
  EXPECT_TRUE(std::has_virtual_destructor_v<ScriptLocalData>);
  EXPECT_TRUE(std::has_virtual_destructor_v<ScriptRepositoryMetaProcessor>);
  EXPECT_TRUE(std::has_virtual_destructor_v<ScriptRepositoryLocalMetaProcessor>);
  EXPECT_FALSE(std::is_final_v<ScriptLocalData>);
}

}  // namespace
