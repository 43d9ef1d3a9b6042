// What AgentStore.h and the store of AgentUtils.h promise.

#include <gmock/gmock.h>

#include <map>
#include <stdexcept>

#include "AgentUtils.h"
#include "Contract.h"
#include "support/StoredRecord.h"

namespace {

using namespace std::string_literals;
using AgentUtils::RootAccessKeyValueStorage;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;

constexpr std::type_identity<StoredRecord> kRecord;

/// A record that its owner cannot read or write.
struct Failing {
  Failing() = default;
  explicit Failing(const AgentStore::KeyedDecoder&) { throw std::runtime_error("no"); }
  void encode(AgentStore::KeyedEncoder& to) const {
    to.encode("6", "version");
    throw std::runtime_error("no");
  }
};

class StoreContract : public contracts::Contract {
 protected:
  std::unique_ptr<RootAccessKeyValueStorage> open(const std::string& container = "ScriptToMeta") {
    return std::make_unique<RootAccessKeyValueStorage>(path, container);
  }

  void update(const std::string& key, const StoredRecord& record) {
    store->updateValue(&record, key);
  }

  /// The row of `key`, "version 5 path /a" with absent fields left out; "(none)" without one.
  std::string fetched(const std::string& key) {
    const auto record = store->fetchValue(key, kRecord);
    if (!record) return "(none)";
    return (record->version ? "version " + *record->version : "") +
           (record->scriptPath ? " path " + *record->scriptPath : "");
  }

  const std::string path = agent->directory() + "/store";
  std::unique_ptr<RootAccessKeyValueStorage> store = open();
};

TEST_F(StoreContract, GivesBackWhatWasWrittenAlsoToTheNextWhoOpensIt) {
  update("both", {"5", "/opt/clean.sh"});
  update("neither", {{}, {}});
  update("path", {{}, "/opt/\xC3\xA9 \"x\".sh"});
  update("version", {"", {}});
  store = open();

  EXPECT_EQ(fetched("both"), "version 5 path /opt/clean.sh");
  EXPECT_EQ(fetched("neither"), "");
  EXPECT_EQ(fetched("path"), " path /opt/\xC3\xA9 \"x\".sh");
  EXPECT_EQ(fetched("version"), "version ");
  EXPECT_EQ(fetched("none"), "(none)");
}

TEST_F(StoreContract, ReplacesARowWhole) {
  update("42", {"5", "/opt/clean.sh"});
  update("42", {"6", {}});

  EXPECT_EQ(fetched("42"), "version 6");
}

TEST_F(StoreContract, RemovesARowByDeletingItOrByWritingNothing) {
  for (const char* const key : {"1", "2", "3"}) update(key, {"5", {}});
  store->deleteValue("1");
  store->updateValue<StoredRecord>(nullptr, "2");
  store->deleteValue("no such key");
  store->updateValue<StoredRecord>(nullptr, "no such key");

  EXPECT_THAT(store->fetchTableAsDictionary(), ElementsAre(Key("3")));
  EXPECT_EQ(fetched("1"), "(none)");
}

TEST_F(StoreContract, ComparesKeysByteForByte) {
  const std::string keys[] = {"",          " 7",       "07",    "7", "A", "a",
                              "e\xCC\x81", "\xC3\xA9", "a\0b"s, "%", "'"};
  for (const std::string& key : keys) update(key, {key, {}});

  EXPECT_EQ(store->fetchTableAsDictionary().size(), 11U);
  for (const std::string& key : keys) EXPECT_EQ(fetched(key), "version " + key);
  EXPECT_EQ(fetched("a\0c"s), "(none)");
}

TEST_F(StoreContract, KeepsContainersApart) {
  update("42", {"5", {}});
  store = open("Other");
  EXPECT_THAT(store->fetchTableAsDictionary(), IsEmpty());
  update("42", {"6", {}});
  update("43", {"7", {}});
  store = open();

  EXPECT_EQ(fetched("42"), "version 5");
  EXPECT_EQ(fetched("43"), "(none)");
}

TEST_F(StoreContract, AFailedEncodingLeavesTheRow) {
  update("42", {"5", {}});
  const Failing failing;

  EXPECT_THROW(store->updateValue(&failing, "42"), std::runtime_error);
  EXPECT_THROW(store->updateValue(&failing, "43"), std::runtime_error);

  EXPECT_EQ(fetched("42"), "version 5");
  EXPECT_THAT(store->fetchTableAsDictionary(), ElementsAre(Key("42")));
}

TEST_F(StoreContract, ARowThatDoesNotDecodeThrowsWhenFetchedButIsListed) {
  update("42", {"5", {}});
  EXPECT_THROW(static_cast<void>(store->fetchValue("42", std::type_identity<Failing>{})),
               std::runtime_error);
  EXPECT_EQ(store->fetchValue("none", std::type_identity<Failing>{}), nullptr);

  for (const char* const element : {"version", "scriptPath"}) {
    SCOPED_TRACE(element);
    const std::string key = "bad "s + element;
    if (!agent->putElementThatIsNoText(path, key, element)) continue;
    EXPECT_ANY_THROW(static_cast<void>(store->fetchValue(key, kRecord)));
    EXPECT_EQ(store->fetchTableAsDictionary().count(key), 1U);
    // Whoever does not ask for that element is not told of it, and the row can be replaced.
    EXPECT_TRUE(agent->putElementThatIsNoText(path, "other", "other"));
    EXPECT_EQ(fetched("other"), "");
    update(key, {"6", {}});
    EXPECT_EQ(fetched(key), "version 6");
    store->deleteValue("other");
  }
  EXPECT_EQ(fetched("42"), "version 5");
}

}  // namespace
