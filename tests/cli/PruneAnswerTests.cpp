// Which scripts a removal takes, and what is said of it.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "PruneAnswer.h"

namespace VarnScripts {
namespace {

using IDs = std::vector<std::string>;

std::vector<VarnScriptRepository::ScriptRepositoryMeta> entriesOf(const IDs& scriptIDs) {
  std::vector<VarnScriptRepository::ScriptRepositoryMeta> entries;
  for (const std::string& scriptID : scriptIDs) entries.emplace_back().scriptID = scriptID;
  return entries;
}

IDs dropped(const IDs& recorded, const IDs& listed) {
  return removalIDs(droppedIDs(recorded, entriesOf(listed)));
}

TEST(DroppedIDs, AreThoseThatTheListLacks) {
  EXPECT_EQ(dropped({"1", "2", "3"}, {"2", "4"}), (IDs{"1", "3"}));
  EXPECT_EQ(dropped({"1", "02"}, {"1", "2"}), IDs{"02"});
  EXPECT_EQ(dropped({"a"}, {"A"}), IDs{"a"});
  EXPECT_EQ(dropped({"1"}, {}), IDs{"1"});
  EXPECT_EQ(dropped({}, {"1"}), IDs{});
}

TEST(DroppedIDs, OfOneIdInTwoSpellingsOneIsTaken) {
  EXPECT_EQ(dropped({"gr\u00fcn", "gru\u0308n"}, {}), IDs{"gr\u00fcn"});
  EXPECT_EQ(dropped({"gru\u0308n"}, {"gr\u00fcn"}), IDs{});
}

TEST(PruneText, IsAnIdPerLine) {
  EXPECT_EQ(pruneText({true, {"1", "a\nb\x1b"}, {}}), "1\na\\nb?\n");
  EXPECT_EQ(pruneText({true, {}, {}}), "");
}

TEST(PruneJson, HasTheIdsOrTheReason) {
  EXPECT_EQ(pruneJson({true, {"1", "2"}, {}}), "{\"dry_run\":true,\"removed\":[\"1\",\"2\"]}\n");
  EXPECT_EQ(pruneJson({false, {}, {}}), "{\"dry_run\":false,\"removed\":[]}\n");
  EXPECT_EQ(pruneJson({false, {}, Reason{ReasonCode::listUnavailable, "No list"}}),
            "{\"dry_run\":false,\"removed\":[],\"reason\":\"No list\","
            "\"reason_code\":\"list_unavailable\"}\n");
}

}  // namespace
}  // namespace VarnScripts
