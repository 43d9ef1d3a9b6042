// What each header in interfaces/ promises, as tests that know no implementation: every agent that
// the tests stand on passes the same ones, so that a double promises no more and no less than the
// real module.
//
// The suites are compiled once for each agent. What they must ask of it beside the four headers is
// an `Agent`.

#pragma once

#include <gtest/gtest.h>

#include <memory>
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

  /// An existing directory that the agent may write to.
  virtual std::string directory() const = 0;

  /// From now on the server has `content` at `path`, which begins without a slash.
  virtual void serve(const std::string& path, const std::string& content) = 0;

  struct Checksum {
    std::string type;
    std::string value;
  };
  /// The checksum of a file of the three bytes "abc", but of none that is longer or shorter.
  virtual Checksum checksumOfABC() const = 0;

  /// Makes `element` of the row `key` something that is not a text. The store at `storagePath` has
  /// the table "ScriptToMeta" and no such row.
  virtual void putElementThatIsNoText(const std::string& storagePath, const std::string& key,
                                      const std::string& element) = 0;

  /// The records so far, as "LEVEL SOURCE OPERATION LINE MESSAGE".
  virtual std::vector<std::string> log() const = 0;

  /// A text and an element with children, in the notation that the parser reads.
  virtual std::string text(const std::string& name, const std::string& value) const = 0;
  virtual std::string element(const std::string& name, const std::string& children) const = 0;
};

/// Each program has one.
std::unique_ptr<Agent> makeAgent();

class Contract : public testing::Test {
 protected:
  const std::unique_ptr<Agent> agent = makeAgent();
};

}  // namespace contracts
