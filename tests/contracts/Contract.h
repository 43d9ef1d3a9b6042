// What each header in interfaces/ promises, as tests that know no implementation: every agent that
// the tests stand on passes the same ones, so that a double promises no more and no less than the
// real module. An agent with modules of its own runs them on these.
//
// The suites are compiled once for each agent. What they must ask of it beside the four headers is
// an `Agent`.

#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace contracts {

/// The agent whose modules are linked in, set up for one test.
class Agent {
 public:
  Agent() = default;
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;
  virtual ~Agent() = default;

  /// An existing directory that the agent may write to, empty at first.
  virtual std::string directory() const = 0;

  /// From now on the server has `content` at `path`, which begins without a slash.
  virtual void serve(const std::string& path, const std::string& content) = 0;

  struct Checksum {
    std::string type;
    std::string value;
  };
  /// The checksum of a file of the three bytes "abc", but of none that is longer or shorter.
  virtual Checksum checksumOfABC() const {
    return {"SHA-256", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"};
  }

  /// Makes `element` of the row `key` something that is not a text. The store at `storagePath` has
  /// the table "ScriptToMeta" and no such row. False when the store can hold nothing but texts.
  virtual bool putElementThatIsNoText(const std::string& storagePath, const std::string& key,
                                      const std::string& element) {
    static_cast<void>(storagePath);
    static_cast<void>(key);
    static_cast<void>(element);
    return false;
  }

  /// The records so far, as "LEVEL SOURCE OPERATION LINE MESSAGE"; nothing when the agent's log
  /// can't be asked, and then the log's suite is skipped.
  virtual std::optional<std::vector<std::string>> log() const { return std::nullopt; }

  /// A text and an element with children, in the notation that the parser reads.
  virtual std::string text(const std::string& name, const std::string& value) const {
    return "<" + name + "><![CDATA[" + value + "]]></" + name + ">";
  }
  virtual std::string element(const std::string& name, const std::string& children) const {
    return "<" + name + ">\n" + children + " </" + name + ">\n";
  }
};

/// Each program has one. Made anew for each test, which may be the second one of its process.
std::unique_ptr<Agent> makeAgent();

class Contract : public testing::Test {
 protected:
  const std::unique_ptr<Agent> agent = makeAgent();
};

}  // namespace contracts
