#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <string_view>
#include <utility>

#include "PrintableText.h"

namespace VarnScripts {
namespace {

constexpr int kUsageError = 2;

// Moves `--server URL` from behind `list` to the front, where it can be nothing but the setting:
// without a URL it is a flag of that command.
std::vector<std::string> withServerInFront(std::vector<std::string> arguments) {
  const auto end = std::find(arguments.begin(), arguments.end(), "--");
  auto at = std::find(arguments.begin(), end, kList);
  std::vector<std::string> front;
  std::vector<std::string> rest(arguments.begin(), at);
  for (; at != end; ++at) {
    const bool isPair = *at == kServer && at + 1 != end && !(at + 1)->starts_with('-');
    const bool isOne = at->starts_with(std::string(kServer) + '=');
    (isPair || isOne ? front : rest).push_back(*at);
    if (isPair) front.push_back(*++at);
  }
  rest.insert(rest.end(), end, arguments.end());
  front.insert(front.end(), rest.begin(), rest.end());
  return front;
}

// The parser takes "--name=" for a name whose value is the next argument, so an empty value is
// handed to it as an argument of its own. It wants the arguments in reverse order.
std::vector<std::string> forParser(const std::vector<std::string>& arguments) {
  std::vector<std::string> result;
  bool onlyPositionals = false;
  for (const auto& argument : arguments) {
    onlyPositionals = onlyPositionals || argument == "--";
    const bool emptyValue = !onlyPositionals && argument.size() > 3 && argument.starts_with("--") &&
                            argument.find('=') == argument.size() - 1;
    if (emptyValue) {
      result.push_back(argument.substr(0, argument.size() - 1));
      result.emplace_back();
    } else {
      result.push_back(argument);
    }
  }
  std::reverse(result.begin(), result.end());
  return result;
}

// How many characters have to be changed, added, taken away or swapped with their neighbour to make
// one text of the other.
std::size_t distance(std::string_view a, std::string_view b) {
  std::vector<std::vector<std::size_t>> to(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) to[i][0] = i;
  for (std::size_t j = 0; j <= b.size(); ++j) to[0][j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t change = a[i - 1] == b[j - 1] ? 0 : 1;
      to[i][j] = std::min({to[i - 1][j - 1] + change, to[i - 1][j] + 1, to[i][j - 1] + 1});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        to[i][j] = std::min(to[i][j], to[i - 2][j - 2] + 1);
      }
    }
  }
  return to[a.size()][b.size()];
}

// The parser's objects and what it writes to, for one command line.
class Parser {
 public:
  explicit Parser(std::vector<std::string> arguments) : words_(std::move(arguments)) {
    app_.name("varn-scripts");
    app_.set_version_flag("--version", "varn-scripts " VARN_VERSION);
    app_.require_subcommand(1);
    app_.fallthrough();
    app_.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app_.footer(
        "The settings may stand before the command or after it. Each is also a key of the\n"
        "settings file (base_path) and an environment variable (VARN_BASE_PATH); an option wins\n"
        "over the environment, the environment over the file.\n"
        "varn-scripts COMMAND --help tells what the command takes, and its exit statuses.");
    addSettings();
    for (const Command& command : commands()) addCommand(command);
  }

  std::variant<CommandLine, Reply> parse() {
    try {
      app_.parse(forParser(withServerInFront(words_)));
    } catch (const CLI::CallForHelp&) {
      return Reply{0, app_.help(), ""};
    } catch (const CLI::CallForVersion&) {
      return Reply{0, "varn-scripts " VARN_VERSION "\n", ""};
    } catch (const CLI::Error& error) {
      if (const auto secret = nameOfSecret()) return usageError(complaintAboutSecret(*secret));
      return usageError(whatIsWrong(error) + suggestion());
    }
    if (const auto empty = nameOfEmptyText()) return usageError(*empty + " must not be empty");
    for (const Command& command : commands()) {
      if (command.execute != nullptr && parserOf(command)->parsed()) result_.command = &command;
    }
    return result_;
  }

 private:
  void addSettings() {
    app_.add_option("--config", result_.configFile, "Settings file, TOML")->type_name("FILE");
    for (const auto& definition : settingDefinitions()) {
      const std::string key(definition.key);
      const std::string meaning(definition.meaning);
      if (definition.kind() == SettingDefinition::Kind::toggle) {
        const std::string letter =
            definition.letter == 0 ? "" : std::string{'-', definition.letter, ','};
        // "--quiet=false" counts down.
        app_.add_flag_function(
            letter + flagOf(key),
            [this, key](std::int64_t count) { result_.flags[key] = count > 0 ? "true" : "false"; },
            meaning);
        continue;
      }
      if (definition.kind() == SettingDefinition::Kind::texts) {
        addTexts(definition);
        continue;
      }
      app_.add_option_function<std::string>(
              flagOf(key), [this, key](const std::string& text) { result_.flags[key] = text; },
              meaning)
          ->type_name(std::string(definition.valueName));
    }
  }

  // A further text needs a further flag: what follows may be an operand.
  void addTexts(const SettingDefinition& definition) {
    app_.add_option_function<std::vector<std::string>>(
            flagOf(definition.key),
            [this, key = std::string(definition.key)](const std::vector<std::string>& texts) {
              std::string& lines = result_.flags[key];
              for (const std::string& text : texts) lines += (lines.empty() ? "" : "\n") + text;
            },
            std::string(definition.meaning))
        ->allow_extra_args(false)
        ->type_name(std::string(definition.valueName));
  }

  void addCommand(const Command& command) {
    CLI::App& parser =
        *parentOf(command)->add_subcommand(lastWordOf(command), std::string(command.meaning));
    parser.group("Commands");
    if (command.execute == nullptr) {
      parser.require_subcommand(1);
      return;
    }
    parser.footer(
        "varn-scripts --help lists the settings, which are options of every command.\n"
        "Exit status: " +
        std::string(command.statuses));
    // A command that no word names is not given.
    const bool mayBeGiven = std::ranges::find(words_, lastWordOf(command)) != words_.end();
    if (mayBeGiven && command.addOptions != nullptr) command.addOptions(parser, result_);
  }

  static std::string lastWordOf(const Command& command) {
    return std::string(command.name.substr(command.name.rfind(' ') + 1));
  }

  // What the command is a command of: the whole program, or another command.
  CLI::App* parentOf(const Command& command) {
    const std::size_t blank = command.name.find(' ');
    if (blank == command.name.npos) return &app_;
    return app_.get_subcommand(std::string(command.name.substr(0, blank)));
  }

  CLI::App* parserOf(const Command& command) {
    return parentOf(command)->get_subcommand(lastWordOf(command));
  }

  // The program and the commands that were given, each below the one before it.
  [[nodiscard]] std::vector<const CLI::App*> given() const {
    std::vector<const CLI::App*> apps = {&app_};
    while (!apps.back()->get_subcommands().empty()) {
      apps.push_back(apps.back()->get_subcommands().front());
    }
    return apps;
  }

  // The first operand or option whose text is empty, as that of a shell's variable that is not set:
  // below an empty directory lies the root. An empty list of codes alone means something.
  [[nodiscard]] std::optional<std::string> nameOfEmptyText() const {
    for (const CLI::App* const app : given()) {
      for (const CLI::Option* const option : app->get_options()) {
        const auto& texts = option->results();
        const bool isEmpty = std::find(texts.begin(), texts.end(), "") != texts.end();
        if (isEmpty && option->get_name() != kAcceptCodes) return option->get_name();
      }
    }
    return std::nullopt;
  }

  std::string whatIsWrong(const CLI::Error& error) {
    const CLI::App* const last = given().back();
    const bool lacksCommand =
        error.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError) &&
        last->get_require_subcommand_min() > 0;
    if (!lacksCommand) return error.what();
    const auto words = app_.remaining(true);
    const auto unknown = std::find_if(words.begin(), words.end(),
                                      [](const auto& word) { return !word.starts_with('-'); });
    const std::string of = last == &app_ ? "" : " of " + last->get_name();
    return (unknown == words.end() ? "a command" + of + " is missing"
                                   : "there is no command " + *unknown + of) +
           "; the commands are " + namesBelow(last);
  }

  // "--passphrase" of "--passphrase=words": a secret that somebody wants to give, which is then not
  // repeated.
  [[nodiscard]] std::optional<std::string> nameOfSecret() const {
    const auto words = app_.remaining(true);
    const auto found = std::ranges::find_if(
        words, [](const std::string& word) { return word.starts_with("--pass"); });
    if (found == words.end()) return std::nullopt;
    return found->substr(0, found->find('='));
  }

  [[nodiscard]] std::string complaintAboutSecret(const std::string& name) const {
    const std::string why =
        name + " is no option: other users can see what stands on a command line";
    const std::string file = "--passphrase-file";
    const bool hasFile = given().back()->get_option_no_throw(file) != nullptr;
    return hasFile ? why + "; " + file + " takes a passphrase from a file" : why;
  }

  // "run, plan and list".
  std::string namesBelow(const CLI::App* app) {
    std::vector<std::string> names;
    for (const Command& command : commands()) {
      if (parentOf(command) == app) names.push_back(lastWordOf(command));
    }
    std::string text;
    for (const std::string& name : names) {
      if (!text.empty()) text += &name == &names.back() ? " and " : ", ";
      text += name;
    }
    return text;
  }

  // The option or command that was meant, as the end of a message; empty when there is no telling.
  [[nodiscard]] std::string suggestion() {
    std::vector<std::string> known;
    for (const CLI::App* const app : given()) {
      for (const CLI::Option* const option : app->get_options()) {
        known.push_back(option->get_name());
      }
    }
    for (const Command& command : commands()) {
      if (parentOf(command) == given().back()) known.push_back(lastWordOf(command));
    }
    for (const std::string& word : app_.remaining(true)) {
      const std::string given = word.substr(0, std::min<std::size_t>(word.find('='), 64));
      const auto nearest = std::ranges::min_element(
          known, {}, [&given](const std::string& name) { return distance(given, name); });
      // A third of it may be wrong.
      if (nearest != known.end() && distance(given, *nearest) * 3 <= nearest->size()) {
        return "; did you mean " + *nearest + "?";
      }
    }
    return "";
  }

  static Reply usageError(const std::string& what) {
    return {kUsageError, "",
            "varn-scripts: " + printable(what) + "\nvarn-scripts --help tells how it is used.\n"};
  }

  const std::vector<std::string> words_;
  CLI::App app_{"Runs an organisation's scripts from a verified local copy."};
  CommandLine result_;
};

}  // namespace

std::variant<CommandLine, Reply> parseCommandLine(const std::vector<std::string>& arguments) {
  return Parser(arguments).parse();
}

}  // namespace VarnScripts
