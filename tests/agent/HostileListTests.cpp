// A server that owns everything but the key, over many random sequences of publications and
// attacks: nothing that the key has not signed is ever used, no serial goes back, and when the
// attack is over the next request uses the newest.
//
// The downloader is the real one, over a real connection. What a request does with it, the test
// does here in its place: list, data document, script, each named by the one before. How many
// sequences there are is VARN_HOSTILE_SEQUENCES in the environment.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "AgentSettings.h"
#include "AgentUtils.h"
#include "Digest.h"
#include "FileAttributes.h"
#include "FileDescriptor.h"
#include "signing/PublicKey.h"
#include "signing/UTCTime.h"
#include "support/Files.h"
#include "support/HttpServer.h"
#include "support/LogCapture.h"
#include "support/Signer.h"
#include "support/TemporaryDirectory.h"

// What is on the disk after a loss of power is not at stake here, and would take most of the time.
extern "C" int fsync(int /*file*/) { return 0; }

namespace {

using AgentUtils::signing::UTCTime;
using AgentUtils::signing::utcTimeText;

constexpr char kRoot[] = "/client-data/acme/scriptrepo/";
constexpr char kListPath[] = "/client-data/acme/scriptrepo/scripts-meta.xml";
constexpr std::chrono::hours kLife{24 * 30};

std::string digestOf(const std::string& bytes) {
  return AgentUtils::hexDigest(AgentUtils::usualDigest(), bytes);
}

/// What stands between two texts.
std::string between(const std::string& text, const std::string& before, const std::string& after) {
  const std::size_t start = text.find(before);
  if (start == text.npos) return "";
  const std::size_t end = text.find(after, start + before.size());
  if (end == text.npos) return "";
  return text.substr(start + before.size(), end - start - before.size());
}

/// One state of a repository.
struct Tree {
  std::map<std::string, std::string> files;  ///< by server path
  std::string list;
  std::string document;
  std::string script;
  std::uint64_t serial = 0;
};

std::string signatureName(const std::string& list) {
  return kRoot + ("signatures/" + digestOf(list)) + ".minisig";
}

Tree treeOf(const std::string& script, const std::string& version) {
  Tree tree;
  tree.script = script;
  const std::string scriptPath = kRoot + ("files/" + digestOf(script)) + ".sh";
  tree.document = "<document><file>" + scriptPath + "</file></document>";
  const std::string documentPath = kRoot + ("data/" + digestOf(tree.document)) + ".xml";
  tree.list = "<list><version>" + version + "</version><data>" + documentPath + "</data></list>";
  tree.files = {{kListPath, tree.list}, {documentPath, tree.document}, {scriptPath, script}};
  return tree;
}

/// Whoever has the key.
class Publisher {
 public:
  /// Adds a publication. One in four keeps the version of the one before, as a publisher who makes
  /// them by hand may.
  const Tree& publish(std::mt19937& random, UTCTime now) {
    const std::uint64_t serial = serial_ += 1 + random() % 3;
    if (trees_.empty() || random() % 4 != 0) ++version_;
    const std::string script = "echo " + std::to_string(serial) + "\n";
    Tree tree = treeOf(script, std::to_string(version_));
    tree.serial = serial;
    sign(tree, now);
    serialOf_[script] = serial;
    trees_.push_back(tree);
    return trees_.back();
  }

  /// A new expiry for the newest.
  void renew(UTCTime now) {
    trees_.back().serial = ++serial_;
    serialOf_[trees_.back().script] = serial_;
    sign(trees_.back(), now);
  }

  [[nodiscard]] const std::vector<Tree>& trees() const { return trees_; }
  /// The serial that covers a script; nothing when no signature does.
  [[nodiscard]] std::optional<std::uint64_t> covering(const std::string& script) const {
    const auto found = serialOf_.find(script);
    if (found == serialOf_.end()) return std::nullopt;
    return found->second;
  }
  [[nodiscard]] UTCTime expires() const { return expires_; }

 private:
  void sign(Tree& tree, UTCTime now) {
    expires_ = now + kLife;
    tree.files[signatureName(tree.list)] = signer_.sign(
        tree.list,
        commentWith(std::to_string(tree.serial), utcTimeText(now), utcTimeText(expires_)));
  }

  const Signer signer_{"first"};
  std::vector<Tree> trees_;
  std::map<std::string, std::uint64_t> serialOf_;
  std::uint64_t serial_ = 0;
  std::uint64_t version_ = 0;
  UTCTime expires_{};
};

std::string tagOf(const std::string& content) {
  return '"' + digestOf(content).substr(0, 16) + '"';
}

/// What the server does with the requests until the next step.
struct Behaviour {
  std::map<std::string, std::string> files;
  bool alwaysUnchanged = false;  ///< tells whoever asks with a condition that nothing has changed
  bool neverWhole = false;       ///< cuts every body
  bool failing = false;
  std::string redirectList;  ///< where the list is said to be; empty for nowhere else
  std::string listTag;       ///< what the list is said to be; empty for the truth

  [[nodiscard]] HttpServer::Answer answerTo(const std::string& head) const {
    const std::size_t start = head.find(' ') + 1;
    const std::string path = head.substr(start, head.find(' ', start) - start);
    if (failing) return httpAnswer("500 Internal Server Error", "no");
    const bool isConditional = head.find("\r\nIf-") != head.npos;
    if (alwaysUnchanged && isConditional) return {"HTTP/1.1 304 Not Modified\r\n\r\n"};
    if (path == kListPath && !redirectList.empty()) {
      return httpAnswer("302 Found", "", "Location: " + redirectList + "\r\n");
    }
    const auto found = files.find(path);
    if (found == files.end()) return httpAnswer("404 Not Found", "none");
    const bool isLie = path == kListPath && !listTag.empty();
    const std::string tag = isLie ? listTag : tagOf(found->second);
    if (head.find("If-None-Match: " + tag) != head.npos) {
      return {"HTTP/1.1 304 Not Modified\r\nETag: " + tag + "\r\n\r\n"};
    }
    std::string answer = httpAnswer("200 OK", found->second, "ETag: " + tag + "\r\n");
    if (neverWhole) {
      answer.resize(answer.size() - std::min<std::size_t>(found->second.size(), 7));
      return {answer, HttpServer::Then::close};
    }
    return answer;
  }
};

class HostileServer : public testing::Test {
 protected:
  HostileServer() {
    AgentUtils::AgentSettings settings;
    settings.basePath = base.path();
    settings.dataPath = base / "data";
    settings.customerID = "acme";
    settings.serverURL = server.url();
    settings.retries = 0;
    settings.trustedKeys = {publicKeyLine(vectorKey("first"))};
    settings.clock = [this] { return now; };
    settings.beforeFileUse = [this](const std::string& path) { isNewList |= path == listFile; };
    ::setenv("no_proxy", "*", 1);
    AgentUtils::configure(settings);
    server.answerAll([this](const std::string& head) {
      const std::lock_guard lock(changing);
      return behaviour.answerTo(head);
    });
  }

  bool download(const std::string& from, const std::string& to) {
    return AgentUtils::HttpHandlermac::initWithServerInfo().downloadFileWithRootPermission(from,
                                                                                           to);
  }

  /// A list that has come is of this time, and not of that of the computer that tests.
  bool downloadList() {
    isNewList = false;
    if (!download(kListPath, listFile)) return false;
    if (isNewList) date(listFile);
    return true;
  }

  void date(const std::string& path) const {
    const timespec time{std::chrono::system_clock::to_time_t(now), 0};
    const timespec times[] = {time, time};
    ::utimensat(AT_FDCWD, path.c_str(), times, 0);
  }

  /// One request: what it would run, or nothing.
  std::optional<std::string> request() {
    if (!downloadList()) return std::nullopt;
    const std::string list = readFile(listFile);
    const std::string version = between(list, "<version>", "</version>");
    const std::string documentPath = between(list, "<data>", "</data>");
    const bool isUpToDate = recorded == version && std::filesystem::exists(documentFile) &&
                            AgentUtils::isBoundDocument(documentFile, documentPath);
    if (!isUpToDate && !download(documentPath, documentFile)) return std::nullopt;
    const std::string scriptPath = between(readFile(documentFile), "<file>", "</file>");
    const std::string checksum = between(scriptPath, "files/", ".sh");
    if (!isUpToDate || !hasChecksum(checksum)) {
      if (!download(scriptPath, scriptFile) || !hasChecksum(checksum)) return std::nullopt;
    }
    recorded = version;
    return readFile(scriptFile);
  }

  [[nodiscard]] bool hasChecksum(const std::string& checksum) const {
    return AgentUtils::VyCryptography::validateCheckSumForFile(scriptFile, "sha256", checksum);
  }

  /// Makes a request, and holds what it would run against what was signed.
  void step(const char* what) {
    const auto ran = request();
    ++(ran ? requestsThatRan : requestsRefused);
    if (!ran) return;
    const auto serial = publisher->covering(*ran);
    ASSERT_TRUE(serial) << what << ": ran what nobody has signed: " << *ran;
    ASSERT_GE(*serial, lastSerial) << what << ": went back";
    lastSerial = *serial;
  }

  void publish() { publisher->publish(random, floor()); }

  [[nodiscard]] UTCTime floor() const { return std::chrono::floor<std::chrono::seconds>(now); }

  const Tree& anyTree() { return publisher->trees()[random() % publisher->trees().size()]; }
  const Tree& newest() { return publisher->trees().back(); }

  template <class Change>
  void change(const Change& make) {
    const std::lock_guard lock(changing);
    make();
  }

  /// The server gives what the publisher has made.
  void beHonest() {
    behaviour = {};
    for (const Tree& tree : publisher->trees()) {
      for (const auto& [path, content] : tree.files) behaviour.files[path] = content;
    }
    behaviour.files[kListPath] = newest().list;
  }

  /// A tree of the attacker's own, with a signature by another key that claims the key's number,
  /// or one over another list.
  Tree forgedTree() {
    Tree tree = treeOf("echo evil " + std::to_string(random()) + "\n", "9");
    std::string file = Signer("second").sign(
        tree.list, commentWith(std::to_string(newest().serial + 5), utcTimeText(floor()),
                               utcTimeText(floor() + kLife)));
    if (random() % 2 == 0) {
      // The number is the second to the ninth byte of the signature.
      const std::string good = newest().files.at(signatureName(newest().list));
      const std::size_t line = file.find('\n') + 1;
      file.replace(line, 13, good, good.find('\n') + 1, 13);
    }
    const Tree& other = anyTree();
    if (random() % 3 == 0) file = other.files.at(signatureName(other.list));
    tree.files[signatureName(tree.list)] = file;
    return tree;
  }

  /// Puts a list into the place of the one that is kept, with all that a download leaves with it.
  Tree plantKeptList() {
    Tree forged = forgedTree();
    writeFile(listFile, forged.list);
    ::chmod(listFile.c_str(), 0600);
    const posix::FileDescriptor file(::open(listFile.c_str(), O_RDWR));
    AgentUtils::setFileAttribute(
        file, "user.varn.download",
        "sha256:" + digestOf(forged.list) + '\n' + server.url() + kListPath + "\n\"v1\"\n");
    date(listFile);
    return forged;
  }

  /// What is served besides stays: nobody takes content away.
  void serveAlso(const Tree& tree) {
    for (const auto& [path, content] : tree.files) behaviour.files[path] = content;
  }

  void attack();
  void runSequence(unsigned long seed);

  std::optional<LogCapture> log;
  TemporaryDirectory base;
  std::chrono::system_clock::time_point now;
  std::mt19937 random;
  std::optional<Publisher> publisher;
  std::mutex changing;  ///< of the behaviour
  Behaviour behaviour;
  HttpServer server;  // after what its threads use
  const std::string listFile = base / "list.xml";
  const std::string documentFile = base / "42.xml";
  const std::string scriptFile = base / "job.sh";
  bool isNewList = false;
  std::string recorded;
  std::uint64_t lastSerial = 0;
  std::uint64_t requestsThatRan = 0;
  std::uint64_t requestsRefused = 0;
  std::array<std::uint64_t, 15> tried{};
};

void HostileServer::attack() {
  beHonest();
  const std::size_t kind = random() % tried.size();
  ++tried[kind];
  switch (kind) {
    case 0:  // every earlier publication once more
      serveAlso(anyTree());
      break;
    case 1: {  // an earlier list under the newest signature, or the other way round
      const Tree& old = anyTree();
      const std::string newSignature = newest().files.at(signatureName(newest().list));
      behaviour.files[kListPath] = old.list;
      behaviour.files[signatureName(old.list)] = newSignature;
      break;
    }
    case 2:  // stands still, for ever
      serveAlso(anyTree());
      now += std::chrono::hours(24 * (random() % 40));
      break;
    case 3:  // drops the signatures
      std::erase_if(behaviour.files, [](const auto& file) {
        return file.first.find("/signatures/") != std::string::npos;
      });
      break;
    case 4:  // nothing has changed, it says
      behaviour.alwaysUnchanged = true;
      break;
    case 5: {  // content under the name of other content
      const Tree forged = forgedTree();
      serveAlso(forged);
      behaviour.files[kListPath] = newest().list;
      for (auto& [path, content] : behaviour.files) {
        if (path.find("/data/") != path.npos && random() % 2 == 0) {
          content = random() % 2 == 0 ? forged.document : anyTree().document;
        }
        if (path.find("/files/") != path.npos && random() % 2 == 0) {
          content = random() % 2 == 0 ? forged.script : anyTree().script;
        }
      }
      break;
    }
    case 6: {  // another customer's tree, signed by the same key
      Tree other = treeOf("echo other\n", "1");
      other.files[signatureName(other.list)] =
          Signer("first").sign(other.list, commentWith("18446744073709551615", utcTimeText(floor()),
                                                       utcTimeText(floor() + kLife), "other"));
      serveAlso(other);
      break;
    }
    case 7:  // leads elsewhere
      serveAlso(forgedTree());
      behaviour.files["/elsewhere"] = random() % 2 == 0 ? anyTree().list : forgedTree().list;
      behaviour.redirectList = server.url() + "/elsewhere";
      break;
    case 8:  // a tree of its own
      serveAlso(forgedTree());
      break;
    case 9:
      behaviour.neverWhole = true;
      break;
    case 10:
      behaviour.failing = true;
      break;
    case 11:  // what lies on this computer comes from a time when the server was trusted
      writeFile(documentFile, forgedTree().document);
      writeFile(scriptFile, "echo evil\n");
      break;
    case 12:  // the list that is kept here as well, and the server says that it is unchanged
      serveAlso(plantKeptList());
      behaviour.alwaysUnchanged = true;
      break;
    case 13:  // any list, under the name by which the server will know the newest
      behaviour.files[kListPath] = anyTree().list;
      behaviour.listTag = tagOf(newest().list);
      break;
    default: {  // a list with the old content, one that names both, and what is not bound
      Tree forged = treeOf("echo evil\n", "7");
      forged.list = "<list><version>7</version><data>/evil.xml</data></list>";
      behaviour.files[kListPath] = random() % 2 == 0 ? forged.list : newest().list + forged.list;
      behaviour.files["/evil.xml"] = forged.document;
      behaviour.files[signatureName(behaviour.files[kListPath])] =
          newest().files.at(signatureName(newest().list));
      break;
    }
  }
}

void HostileServer::runSequence(unsigned long seed) {
  random.seed(seed);
  log.reset();
  log.emplace();
  publisher.emplace();
  recorded.clear();
  lastSerial = 0;
  now = at("2026-11-22T11:30:00Z");
  for (const char* const name : {"list.xml", "42.xml", "job.sh", "data"}) {
    std::filesystem::remove_all(base / name);
  }
  publish();
  const auto steps = static_cast<int>(2 + random() % 6);
  for (int i = 0; i < steps && !HasFatalFailure(); ++i) {
    now += std::chrono::minutes(random() % 3000);
    if (random() % 2 == 0) publish();
    const bool isHonest = random() % 4 == 0;
    change([&] { isHonest ? beHonest() : attack(); });
    step(isHonest ? "honest" : "attack");
  }
  // The attack is over, and what the server has said before counts for an hour at most. A publisher
  // renews what runs out.
  now += std::chrono::minutes(61);
  if (floor() >= publisher->expires()) publisher->renew(floor());
  change([&] { beHonest(); });
  const auto ran = request();
  ASSERT_TRUE(ran) << "nothing ran after the attack: " << log->lines().back();
  ASSERT_EQ(*ran, newest().script);
}

TEST_F(HostileServer, OwnsEverythingButTheKey) {
  const char* const asked = std::getenv("VARN_HOSTILE_SEQUENCES");
  const unsigned long sequences = asked == nullptr ? 200 : std::strtoul(asked, nullptr, 10);
  for (unsigned long seed = 1; seed <= sequences && !HasFatalFailure(); ++seed) {
    SCOPED_TRACE("sequence " + std::to_string(seed));
    runSequence(seed);
  }
  for (std::size_t kind = 0; kind < tried.size(); ++kind) EXPECT_GT(tried[kind], 0U) << kind;
  EXPECT_GT(requestsThatRan, sequences);
  EXPECT_GT(requestsRefused, sequences);
  if (HasFailure()) return;
  std::printf(
      "figure: %lu sequences of publications and attacks: %llu requests ran what is signed, "
      "%llu ran nothing, 0 ran anything else or went back\n",
      sequences, static_cast<unsigned long long>(requestsThatRan),
      static_cast<unsigned long long>(requestsRefused));
}

}  // namespace
