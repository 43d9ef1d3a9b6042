// The records of the two documents: keys, what is required, order, look-ups, encoding.

#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "AgentFixture.h"
#include "MarkupParser.h"
#include "ScriptRepositoryRecords.h"

namespace {

using namespace VarnScriptRepository;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

template <class Record>
std::optional<Record> decode(const std::string& document) {
  auto roots = MarkupParser::XML::parse(document, std::nullopt, false).toStruct<Record>();
  if (!roots || roots->empty()) return std::nullopt;
  return roots->front();
}

struct FieldRow {
  std::string key;
  bool required;
  bool isList;
  bool operator==(const FieldRow&) const = default;
};

void PrintTo(const FieldRow& row, std::ostream* out) {
  *out << row.key << (row.required ? " required" : " optional") << (row.isList ? " list" : " text");
}

std::vector<FieldRow> rows(const MarkupParser::RecordSchema& schema) {
  std::vector<FieldRow> listed;
  for (const MarkupParser::RecordField& field : schema.fields) {
    listed.push_back({std::string(field.key), field.required,
                      field.kind == MarkupParser::RecordField::Kind::list});
  }
  return listed;
}

// ---- Schemas ---------------------------------------------------------------------------------

TEST(RecordSchemas, MetadataRootHoldsTheTopElement) {
  EXPECT_THAT(rows(ScriptsRepoMetaRoot::schema()),
              ElementsAre(FieldRow{"scripts-meta", true, true}));
}

TEST(RecordSchemas, MetadataContainerHoldsTheEntries) {
  EXPECT_THAT(rows(ScriptRepoAllMetaData::schema()),
              ElementsAre(FieldRow{"ScriptRepo", true, true}));
}

TEST(RecordSchemas, MetadataEntryHasItsTwelveFieldsInOrder) {
  EXPECT_THAT(
      rows(ScriptRepositoryMeta::schema()),
      ElementsAre(FieldRow{"script_name", false, false}, FieldRow{"description", false, false},
                  FieldRow{"script_id", true, false}, FieldRow{"script_file", false, false},
                  FieldRow{"db_updated_time", false, false}, FieldRow{"file_id", true, false},
                  FieldRow{"customer_id", false, false}, FieldRow{"os_platform", false, false},
                  FieldRow{"modified_time", true, false}, FieldRow{"created_time", false, false},
                  FieldRow{"enc_type", false, false}, FieldRow{"ScriptPathMapping", false, true}));
}

TEST(RecordSchemas, PathMappingHoldsItsPath) {
  EXPECT_THAT(rows(ScriptRepoPath::schema()), ElementsAre(FieldRow{"filepath", true, false}));
}

TEST(RecordSchemas, DataRootHoldsTheTopElement) {
  EXPECT_THAT(rows(ScriptRoot::schema()), ElementsAre(FieldRow{"script", true, true}));
}

TEST(RecordSchemas, DataItemHasItsThreeLists) {
  EXPECT_THAT(rows(ScriptItem::schema()),
              ElementsAre(FieldRow{"ScriptRepo", true, true},
                          FieldRow{"ChecksumValues", true, true}, FieldRow{"VyFiles", true, true}));
}

TEST(RecordSchemas, ScriptDefinitionHasItsThirteenFieldsInOrder) {
  EXPECT_THAT(
      rows(ScriptRepo::schema()),
      ElementsAre(FieldRow{"script_id", true, false}, FieldRow{"script_name", true, false},
                  FieldRow{"file_id", true, false}, FieldRow{"db_updated_time", true, false},
                  FieldRow{"customer_id", true, false}, FieldRow{"script_type", true, false},
                  FieldRow{"description", true, false}, FieldRow{"os_platform", true, false},
                  FieldRow{"created_time", true, false}, FieldRow{"script_file", true, false},
                  FieldRow{"script_args", true, false},
                  FieldRow{"script_mul_exit_code", true, false},
                  FieldRow{"modified_time", true, false}));
}

TEST(RecordSchemas, ChecksumRecordHasItsFiveFieldsInOrder) {
  EXPECT_THAT(
      rows(ChecksumValue::schema()),
      ElementsAre(FieldRow{"download_url_checksum", true, false},
                  FieldRow{"checksum_id", true, false}, FieldRow{"checksum_type", true, false},
                  FieldRow{"download_url", true, false}, FieldRow{"checksum_val", true, false}));
}

TEST(RecordSchemas, FileHasItsElevenFieldsInOrder) {
  EXPECT_THAT(
      rows(VyFile::schema()),
      ElementsAre(FieldRow{"file_status_remarks", true, false},
                  FieldRow{"content_type", true, false}, FieldRow{"file_id", true, false},
                  FieldRow{"module_name", true, false}, FieldRow{"customer_id", true, false},
                  FieldRow{"content_length", true, false},
                  FieldRow{"file_system_location", true, false}, FieldRow{"file_name", true, false},
                  FieldRow{"expiry_time", true, false}, FieldRow{"file_status", true, false},
                  FieldRow{"CSToVyFiles", true, true}));
}

TEST(RecordSchemas, ChecksumLinkHoldsItsID) {
  EXPECT_THAT(rows(CSToVyFile::schema()), ElementsAre(FieldRow{"checksum_id", true, false}));
}

/// Expects of each of the descriptions that it is the one of the field in the table, and that it
/// reaches the member that the table names and no other.
template <class Record, class Member>
void expectFieldOfTable(const Field<Record, Member>& field,
                        const std::vector<MarkupParser::RecordField>& descriptions) {
  using Kind = MarkupParser::RecordField::Kind;
  using Value = typename keyed::MemberTraits<Member>::Value;
  constexpr bool isText = std::is_same_v<Value, std::string>;
  SCOPED_TRACE(std::string(field.key));
  for (const MarkupParser::RecordField& one : descriptions) {
    EXPECT_EQ(one.key, field.key);
    EXPECT_EQ(one.kind, isText ? Kind::text : Kind::list);
    EXPECT_EQ(one.required, (std::is_same_v<Member, Value>));

    Record record;
    Record expected;
    if constexpr (isText) {
      one.setText(&record, "text");
      expected.*field.member = "text";
      ASSERT_NE(one.text(&record), nullptr);
      EXPECT_EQ(*one.text(&record), "text");
    } else {
      // As many as make the list grow more than once.
      constexpr std::size_t many = 7;
      for (std::size_t count = 0; count < many; ++count) {
        EXPECT_EQ(one.count(&record), count);
        void* const element = one.append(&record);
        EXPECT_EQ(one.element(&record, count), element);
      }
      expected.*field.member = Value(many);
      EXPECT_EQ(&one.elementSchema(), &Value::value_type::schema());
    }
    EXPECT_EQ(record, expected);
  }
}

template <class Record, std::size_t... indices>
void expectSchemaOfTable(std::index_sequence<indices...> all) {
  // Called by way of variables, so that they run now; the schema is the compiler's.
  auto* tableNow = &Record::fields;
  auto* allNow = &keyed::describeFields<Record, indices...>;
  MarkupParser::RecordField (*oneNow[])() = {&keyed::FieldAccess<Record, indices>::describe...};
  const auto table = tableNow();
  const auto described = allNow(all);
  const auto inSchema = Record::schema().fields;
  ASSERT_EQ(inSchema.size(), sizeof...(indices));
  (expectFieldOfTable(std::get<indices>(table),
                      {described[indices], oneNow[indices](), inSchema[indices]}),
   ...);
}

template <class Record>
class RecordTables : public testing::Test {};

using AllRecords =
    testing::Types<ScriptRepoPath, ScriptRepositoryMeta, ScriptRepoAllMetaData, ScriptsRepoMetaRoot,
                   ScriptRepo, ChecksumValue, CSToVyFile, VyFile, ScriptItem, ScriptRoot>;
TYPED_TEST_SUITE(RecordTables, AllRecords);

TYPED_TEST(RecordTables, SayWhatTheSchemasSay) {
  constexpr std::size_t count = std::tuple_size_v<decltype(TypeParam::fields())>;
  expectSchemaOfTable<TypeParam>(std::make_index_sequence<count>());
}

// ---- Decoding --------------------------------------------------------------------------------

TEST(RecordDecoding, AMetadataEntryTakesEachKeyToItsField) {
  const auto root = decode<ScriptsRepoMetaRoot>(
      "scripts-meta(ScriptRepo(script_name<a> description<b> script_id<c> script_file<d> "
      "db_updated_time<e> file_id<f> customer_id<g> os_platform<h> modified_time<i> "
      "created_time<j> enc_type<k> ScriptPathMapping(filepath<l>) "
      "ScriptPathMapping(filepath<m>)))");

  ASSERT_TRUE(root);
  ASSERT_THAT(root->scriptsMeta, SizeIs(1));
  ASSERT_THAT(root->scriptsMeta[0].scriptRepo, SizeIs(1));
  const ScriptRepositoryMeta& entry = root->scriptsMeta[0].scriptRepo[0];
  EXPECT_EQ(entry.scriptName, "a");
  EXPECT_EQ(entry.description, "b");
  EXPECT_EQ(entry.scriptID, "c");
  EXPECT_EQ(entry.scriptFile, "d");
  EXPECT_EQ(entry.dbUpdatedTime, "e");
  EXPECT_EQ(entry.fileID, "f");
  EXPECT_EQ(entry.customerID, "g");
  EXPECT_EQ(entry.osPlatform, "h");
  EXPECT_EQ(entry.modifiedTime, "i");
  EXPECT_EQ(entry.createdTime, "j");
  EXPECT_EQ(entry.encType, "k");
  EXPECT_THAT(entry.scriptPathMapping,
              testing::Optional(ElementsAre(ScriptRepoPath{"l"}, ScriptRepoPath{"m"})));
}

TEST(RecordDecoding, AMetadataEntryOfRequiredFieldsAloneHasAbsentOnes) {
  const auto root = decode<ScriptsRepoMetaRoot>(
      "scripts-meta(ScriptRepo(script_id<42> file_id<f1> modified_time<5>))");

  ASSERT_TRUE(root);
  const ScriptRepositoryMeta& entry = root->scriptsMeta.at(0).scriptRepo.at(0);
  EXPECT_EQ(entry.scriptName, std::nullopt);
  EXPECT_EQ(entry.description, std::nullopt);
  EXPECT_EQ(entry.scriptFile, std::nullopt);
  EXPECT_EQ(entry.dbUpdatedTime, std::nullopt);
  EXPECT_EQ(entry.customerID, std::nullopt);
  EXPECT_EQ(entry.osPlatform, std::nullopt);
  EXPECT_EQ(entry.createdTime, std::nullopt);
  EXPECT_EQ(entry.encType, std::nullopt);
  // Absent, not an empty list.
  EXPECT_EQ(entry.scriptPathMapping, std::nullopt);
}

TEST(RecordDecoding, OneMissingRequiredKeyFailsTheWholeMetadataDocument) {
  const std::string good = "ScriptRepo(script_id<1> file_id<f> modified_time<5>)";
  for (const std::string bad :
       {"ScriptRepo(file_id<f> modified_time<5>)", "ScriptRepo(script_id<1> modified_time<5>)",
        "ScriptRepo(script_id<1> file_id<f>)",
        "ScriptRepo(script_id<1> file_id<f> Modified_Time<5>)",
        "ScriptRepo(script_id<1> file_id<f> modified_time<5> "
        "ScriptPathMapping(path<x>))"}) {
    SCOPED_TRACE(bad);
    EXPECT_TRUE(decode<ScriptsRepoMetaRoot>("scripts-meta(" + good + good + ")"));
    EXPECT_FALSE(decode<ScriptsRepoMetaRoot>("scripts-meta(" + good + bad + ")"));
  }
}

TEST(RecordDecoding, ADataDocumentTakesEachKeyToItsField) {
  const auto root = decode<ScriptRoot>(
      "script(ScriptRepo(script_id<a> script_name<b> file_id<c> db_updated_time<d> customer_id<e> "
      "script_type<f> description<g> os_platform<h> created_time<i> script_file<j> script_args<k> "
      "script_mul_exit_code<l> modified_time<m>) "
      "ChecksumValues(download_url_checksum<n> checksum_id<o> checksum_type<p> download_url<q> "
      "checksum_val<r>) "
      "VyFiles(file_status_remarks<s> content_type<t> file_id<u> module_name<v> customer_id<w> "
      "content_length<x> file_system_location<y> file_name<z> expiry_time<1> file_status<2> "
      "CSToVyFiles(checksum_id<3>) CSToVyFiles(checksum_id<4>)))");

  ASSERT_TRUE(root);
  ASSERT_THAT(root->script, SizeIs(1));
  const ScriptItem& item = root->script[0];
  EXPECT_THAT(item.scriptRepo, ElementsAre(ScriptRepo{"a", "b", "c", "d", "e", "f", "g", "h", "i",
                                                      "j", "k", "l", "m"}));
  EXPECT_THAT(item.checksumValues, ElementsAre(ChecksumValue{"n", "o", "p", "q", "r"}));
  EXPECT_THAT(item.files, ElementsAre(VyFile{
                              "s", "t", "u", "v", "w", "x", "y", "z", "1", "2", {{"3"}, {"4"}}}));
}

TEST(RecordDecoding, OneMissingRequiredKeyFailsTheWholeDataDocument) {
  const doubles::DataDocument document;
  ASSERT_TRUE(decode<ScriptRoot>(document.text()));
  for (const std::string key : {"script_id",
                                "script_name",
                                "file_id",
                                "db_updated_time",
                                "customer_id",
                                "script_type",
                                "description",
                                "os_platform",
                                "created_time",
                                "script_file",
                                "script_args",
                                "script_mul_exit_code",
                                "modified_time",
                                "download_url_checksum",
                                "checksum_id",
                                "checksum_type",
                                "download_url",
                                "checksum_val",
                                "file_status_remarks",
                                "content_type",
                                "module_name",
                                "content_length",
                                "file_system_location",
                                "file_name",
                                "expiry_time",
                                "file_status"}) {
    SCOPED_TRACE(key);
    // Every occurrence in turn: some keys belong to several records.
    const std::string text = document.text();
    std::size_t occurrences = 0;
    for (auto at = text.find(key + "<"); at != std::string::npos;
         at = text.find(key + "<", at + 1)) {
      if (text[at - 1] != ' ' && text[at - 1] != '(') continue;
      std::string renamed = text;
      renamed.insert(at, "x");
      EXPECT_FALSE(decode<ScriptRoot>(renamed)) << renamed;
      ++occurrences;
    }
    EXPECT_GE(occurrences, 1U);
  }
}

TEST(RecordDecoding, RequiredListsWithoutElementsAreEmpty) {
  const auto root = decode<ScriptRoot>("script()");

  ASSERT_TRUE(root);
  ASSERT_THAT(root->script, SizeIs(1));
  EXPECT_THAT(root->script[0].scriptRepo, IsEmpty());
  EXPECT_THAT(root->script[0].checksumValues, IsEmpty());
  EXPECT_THAT(root->script[0].files, IsEmpty());
}

TEST(RecordDecoding, TextsStayAsTheyStand) {
  const auto root = decode<ScriptsRepoMetaRoot>(
      "scripts-meta(ScriptRepo(script_id< 042 > file_id<> modified_time<05\n>))");

  ASSERT_TRUE(root);
  const ScriptRepositoryMeta& entry = root->scriptsMeta.at(0).scriptRepo.at(0);
  EXPECT_EQ(entry.scriptID, " 042 ");
  EXPECT_EQ(entry.fileID, "");
  EXPECT_EQ(entry.modifiedTime, "05\n");
}

// ---- Encoding --------------------------------------------------------------------------------

TEST(RecordEncoding, WritesTheKeysInOrderAndLeavesAbsentFieldsOut) {
  ScriptRepositoryMeta entry;
  entry.scriptID = "42";
  entry.fileID = "f1";
  entry.modifiedTime = "5";
  EXPECT_EQ(doubles::document(ScriptsRepoMetaRoot{{ScriptRepoAllMetaData{{entry}}}}),
            "scripts-meta(ScriptRepo(script_id<42> file_id<f1> modified_time<5>))");

  entry.scriptName = "Clean";
  entry.encType = "";
  entry.scriptPathMapping = {{ScriptRepoPath{"/a.xml"}, ScriptRepoPath{"/b.xml"}}};
  EXPECT_EQ(doubles::document(ScriptsRepoMetaRoot{{ScriptRepoAllMetaData{{entry}}}}),
            "scripts-meta(ScriptRepo(script_name<Clean> script_id<42> file_id<f1> modified_time<5> "
            "enc_type<> ScriptPathMapping(filepath</a.xml>) ScriptPathMapping(filepath</b.xml>)))");
}

TEST(RecordEncoding, WritesADataDocumentInTheOrderOfItsTables) {
  const ScriptRoot root{
      {ScriptItem{{ScriptRepo{"a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k", "l", "m"}},
                  {ChecksumValue{"n", "o", "p", "q", "r"}},
                  {VyFile{"s", "t", "u", "v", "w", "x", "y", "z", "1", "2", {{"3"}}}}}}};

  EXPECT_EQ(doubles::document(root),
            "script(ScriptRepo(script_id<a> script_name<b> file_id<c> db_updated_time<d> "
            "customer_id<e> script_type<f> description<g> os_platform<h> created_time<i> "
            "script_file<j> script_args<k> script_mul_exit_code<l> modified_time<m>) "
            "ChecksumValues(download_url_checksum<n> checksum_id<o> checksum_type<p> "
            "download_url<q> checksum_val<r>) "
            "VyFiles(file_status_remarks<s> content_type<t> file_id<u> module_name<v> "
            "customer_id<w> content_length<x> file_system_location<y> file_name<z> expiry_time<1> "
            "file_status<2> CSToVyFiles(checksum_id<3>)))");
}

TEST(RecordEncoding, DecodesToAnEqualRecord) {
  const auto root = decode<ScriptRoot>(doubles::DataDocument{}.text());
  ASSERT_TRUE(root);
  EXPECT_EQ(decode<ScriptRoot>(doubles::document(*root)), root);
}

// ---- Look-ups --------------------------------------------------------------------------------

VyFile file(const std::string& fileID, const std::string& fileName) {
  VyFile made;
  made.fileID = fileID;
  made.fileName = fileName;
  return made;
}

ScriptRepo repo(const std::string& scriptID, const std::string& scriptName) {
  ScriptRepo made;
  made.scriptID = scriptID;
  made.scriptName = scriptName;
  return made;
}

TEST(GetFileData, GivesTheFirstFileOfThatID) {
  const ScriptItem item{{}, {}, {file("7", "first"), file("8", "other"), file("7", "second")}};

  EXPECT_EQ(item.getFileData("7"), file("7", "first"));
  EXPECT_EQ(item.getFileData("8"), file("8", "other"));
}

TEST(GetFileData, TakesNeitherLeadingZerosNorBlanksForEqual) {
  const ScriptItem item{{}, {}, {file("07", "zero"), file(" 7", "blank"), file("7 ", "after")}};

  EXPECT_EQ(item.getFileData("7"), std::nullopt);
}

TEST(GetFileData, TakesCanonicallyEquivalentSpellingsForEqual) {
  const ScriptItem item{{}, {}, {file("caf\u00e9", "composed")}};

  EXPECT_EQ(item.getFileData("cafe\u0301"), file("caf\u00e9", "composed"));
  EXPECT_EQ(item.getFileData("cafe"), std::nullopt);
}

TEST(GetFileData, OfNoFilesIsAbsent) { EXPECT_EQ(ScriptItem{}.getFileData(""), std::nullopt); }

TEST(GetScriptRepo, GivesTheFirstDefinitionOfThatID) {
  const ScriptItem item{{repo("a", "first"), repo("b", "other"), repo("a", "second")}, {}, {}};

  EXPECT_EQ(item.getScriptRepo("a"), repo("a", "first"));
  EXPECT_EQ(item.getScriptRepo("b"), repo("b", "other"));
}

TEST(GetScriptRepo, CountsCaseAndTakesCanonicallyEquivalentSpellingsForEqual) {
  const ScriptItem item{{repo("\u00c5b", "composed")}, {}, {}};

  EXPECT_EQ(item.getScriptRepo("\u00c5B"), std::nullopt);
  EXPECT_EQ(item.getScriptRepo("A\u030ab"), repo("\u00c5b", "composed"));
  EXPECT_EQ(item.getScriptRepo("\u00e5b"), std::nullopt);
}

TEST(GetAllAvailableScriptIDs, KeepsDocumentOrderAndDuplicates) {
  ScriptRepoAllMetaData container;
  for (const char* const id : {"3", "1", "3"}) {
    container.scriptRepo.emplace_back().scriptID = id;
  }
  EXPECT_THAT(container.getAllAvailableScriptIDs(), ElementsAre("3", "1", "3"));
}

TEST(GetAllAvailableScriptIDs, OfNoEntriesIsEmpty) {
  EXPECT_THAT(ScriptRepoAllMetaData{}.getAllAvailableScriptIDs(), IsEmpty());
}

// ---- Vocabulary ------------------------------------------------------------------------------

TEST(OSPlatforms, ComeFromExactlyTheirRawValue) {
  EXPECT_EQ(OSPlatform::fromRawValue("Mac"), OSPlatform::macOS);
  for (const char* const other : {"mac", "macOS", "MAC", "", " Mac", "Mac "}) {
    SCOPED_TRACE(other);
    EXPECT_EQ(OSPlatform::fromRawValue(other), std::nullopt);
  }
}

TEST(OSPlatforms, HaveTheirRawValue) { EXPECT_EQ(OSPlatform(OSPlatform::macOS).rawValue(), "Mac"); }

}  // namespace
