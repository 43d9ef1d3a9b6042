#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <map>
#include <system_error>

#include "PrintableText.h"
#include "ScriptRules.h"

namespace VarnScripts {
namespace {

constexpr int kUsageError = 2;

// An empty list accepts nothing, while the server's empty list accepts the empty code.
std::vector<std::string> splitCodes(const std::string& list) {
  if (list.empty()) return {};
  return VarnScriptRepository::codesIn(list);
}

// Takes "7d" for 604800 seconds.
CLI::Validator durationInSeconds() {
  constexpr std::uint64_t kMost = 100 * 366 * 86400ULL;
  const std::map<std::string, std::uint64_t> units = {
      {"s", 1}, {"m", 60}, {"h", 3600}, {"d", 86400}};
  return CLI::Validator(
      [units](std::string& text) -> std::string {
        const std::string what = "must be a time such as 7d, 12h, 30m or 45s: " + text;
        std::uint64_t number = 0;
        const char* const end = text.data() + text.size();
        const auto [rest, failure] = std::from_chars(text.data(), end, number);
        const auto unit = units.find(std::string(rest, end));
        if (failure != std::errc() || unit == units.end()) return what;
        if (number > kMost / unit->second) return what + " (it is too long)";
        text = std::to_string(number * unit->second);
        return "";
      },
      "");
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

// The parser's objects and what it writes to, for one command line.
class Parser {
 public:
  Parser() {
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
    addCommands();
  }

  std::variant<CommandLine, Reply> parse(const std::vector<std::string>& arguments) {
    try {
      app_.parse(forParser(arguments));
    } catch (const CLI::CallForHelp&) {
      return Reply{0, app_.help(), ""};
    } catch (const CLI::CallForVersion&) {
      return Reply{0, "varn-scripts " VARN_VERSION "\n", ""};
    } catch (const CLI::Error& error) {
      return usageError(app_.get_subcommands().empty() ? withoutCommand(error) : error.what());
    }
    if (const auto empty = nameOfEmptyText()) return usageError(*empty + " must not be empty");
    return taken();
  }

 private:
  void addSettings() {
    app_.add_option("--config", result_.configFile, "Settings file, TOML")->type_name("FILE");
    for (const auto& definition : settingDefinitions()) {
      const std::string key(definition.key);
      const std::string meaning(definition.meaning);
      if (definition.kind() == SettingDefinition::Kind::toggle) {
        app_.add_flag_callback(
            flagOf(key), [this, key] { result_.flags[key] = "true"; }, meaning);
        continue;
      }
      app_.add_option_function<std::string>(
              flagOf(key), [this, key](const std::string& text) { result_.flags[key] = text; },
              meaning)
          ->type_name(std::string(definition.valueName));
    }
  }

  CLI::App* addCommand(const std::string& name, const std::string& meaning,
                       const std::string& statuses) {
    CLI::App* command = app_.add_subcommand(name, meaning);
    command->group("Commands");
    command->footer(
        "varn-scripts --help lists the settings, which are options of every command.\n"
        "Exit status: " +
        statuses);
    return command;
  }

  void addCommands() {
    run_ = addCommand("run", "Fetch, verify and run one script",
                      "0 accepted, 1 rejected, 2 usage or settings error, 3 not run.");
    run_->add_option("SCRIPT_ID", result_.scriptID, "The script's ID")->required()->type_name("");
    acceptCodes_ =
        run_->add_option("--accept-codes", codes_,
                         "Exit codes that count as success, separated by commas, in place of "
                         "the server's; an empty list accepts none")
            ->type_name("LIST");
    run_->add_flag("--json", result_.json, "Print the result as one JSON object");

    plan_ = addCommand("plan", "Tell what run would do now, and change nothing",
                       "0 a script would be run, 2 usage or settings error, 3 none would be.");
    plan_->add_option("SCRIPT_ID", result_.scriptID, "The script's ID")->required()->type_name("");
    plan_->add_flag("--json", result_.json, "Print the plan as one JSON object");

    prune_ = addCommand("prune", "Remove local copies of scripts the server dropped",
                        "0 done, 2 usage or settings error, 3 the server's list can't be had.");

    list_ = addCommand("list", "List the local records",
                       "0 done, 2 usage or settings error, 3 the store can't be read.");
    list_->add_flag("--json", result_.json, "Print the records as a JSON array");

    addPublish();
  }

  void addPublish() {
    PublishOptions& options = result_.publish;
    publish_ = addCommand("publish", "Turn a directory of scripts into a server's tree",
                          "0 published, or nothing has changed; 2 usage or settings error, or the\n"
                          "source is refused; 3 the tree can't be written.");
    publish_
        ->add_option("SOURCE_DIR", options.sourceDirectory,
                     "Scripts and their manifest, scripts.toml")
        ->required()
        ->type_name("");
    publish_
        ->add_option("OUTPUT_DIR", options.outputDirectory,
                     "What the server serves; made when missing")
        ->required()
        ->type_name("");
    publish_
        ->add_option_function<std::uint64_t>(
            "--keep-for",
            [&options](const std::uint64_t& seconds) {
              options.keepFor = std::chrono::seconds(seconds);
            },
            "How long content stays that the list no longer names: 7d, 12h, 30m or 45s (default: "
            "until the list is replaced once more)")
        ->transform(durationInSeconds())
        ->type_name("TIME");
    publish_->add_flag("--strict", options.strict, "Refuse what is a warning otherwise");
    publish_->add_flag("--check", options.check, "Check everything and write nothing");
    publish_->add_flag("--allow-removal", options.allowRemoval,
                       "Publish a manifest without a script, so that computers remove all theirs");
    publish_
        ->add_option("--digest", options.digest,
                     "Digest of the checksums (default: the manifest's, or sha256)")
        ->type_name("NAME");
  }

  CommandLine taken() {
    CommandLine line = result_;
    line.command = run_->parsed()       ? CommandLine::Command::run
                   : plan_->parsed()    ? CommandLine::Command::plan
                   : prune_->parsed()   ? CommandLine::Command::prune
                   : publish_->parsed() ? CommandLine::Command::publish
                                        : CommandLine::Command::list;
    if (acceptCodes_->count() > 0) line.acceptCodes = splitCodes(codes_);
    return line;
  }

  // The first operand or option whose text is empty, as that of a shell's variable that is not set:
  // below an empty directory lies the root. An empty list of codes alone means something.
  [[nodiscard]] std::optional<std::string> nameOfEmptyText() const {
    std::vector<const CLI::App*> apps = {&app_};
    for (const CLI::App* const command : app_.get_subcommands()) apps.push_back(command);
    for (const CLI::App* const app : apps) {
      for (const CLI::Option* const option : app->get_options()) {
        const auto& texts = option->results();
        const bool isEmpty = std::find(texts.begin(), texts.end(), "") != texts.end();
        if (isEmpty && option != acceptCodes_) return option->get_name();
      }
    }
    return std::nullopt;
  }

  // What is wrong with a command line that names no command.
  std::string withoutCommand(const CLI::Error& error) const {
    if (error.get_exit_code() != static_cast<int>(CLI::ExitCodes::RequiredError)) {
      return error.what();
    }
    const auto words = app_.remaining();
    const auto unknown = std::find_if(words.begin(), words.end(),
                                      [](const auto& word) { return !word.starts_with('-'); });
    const std::string known = "; the commands are run, plan, prune, list and publish";
    return (unknown == words.end() ? "a command is missing" : "there is no command " + *unknown) +
           known;
  }

  static Reply usageError(const std::string& what) {
    return {kUsageError, "",
            "varn-scripts: " + printable(what) + "\nvarn-scripts --help tells how it is used.\n"};
  }

  CLI::App app_{"Runs an organisation's scripts from a verified local copy."};
  CLI::App* run_ = nullptr;
  CLI::App* plan_ = nullptr;
  CLI::App* prune_ = nullptr;
  CLI::App* list_ = nullptr;
  CLI::App* publish_ = nullptr;
  CLI::Option* acceptCodes_ = nullptr;
  CommandLine result_;
  std::string codes_;
};

}  // namespace

std::variant<CommandLine, Reply> parseCommandLine(const std::vector<std::string>& arguments) {
  return Parser().parse(arguments);
}

}  // namespace VarnScripts
