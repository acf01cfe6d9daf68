#include "arguments.h"

#include <array>
#include <getopt.h>

namespace vlog {

const char *const USAGE =
    "Usage: vigmond-log [show|changes|summary|plot|export] [OPTION...] [FOLDER|FILE|STATION=FOLDER...]\n"
    "Reads the status logs of vigmond. Without arguments: summary of /var/lib/evse/vigmond.\n"
    "\n"
    "A folder means its log and all its generations. A file is plain or compressed with bzip2; - is\n"
    "standard input. STATION= names a station.\n"
    "\n"
    "  show                   the records\n"
    "  changes                one line per change of state, starts, gaps and clock changes\n"
    "  summary                one row per check\n"
    "      --json             as JSON\n"
    "  plot -o FILE           a page for a browser\n"
    "  export --format=FORMAT the records as csv, jsonl or openmetrics\n"
    "  export --textfile=FILE the current values for the node exporter\n"
    "      --bus              also the raised issues, from the system bus\n"
    "\n"
    "      --since=TIME       from this time on, in the syntax of journalctl: \"2024-05-01 10:00\", yesterday, -2h\n"
    "      --until=TIME       before this time\n"
    "      --issue=CB20       only this issue\n"
    "      --state=STATE      only records with this state: OK, WARN, FAIL or INV\n"
    "      --timezone=ZONE    the zone of the log's times, like Europe/Berlin; default: the system's\n"
    "  -o, --output=FILE      write to a file, which appears when complete\n"
    "  -h, --help             show this help\n"
    "  -v, --version          show the version\n"
    "\n"
    "Exit status: 0, 1 if something could not be read or written, 2 for wrong usage.\n";

namespace {

enum Option : int {
    OPTION_JSON = 256,
    OPTION_SINCE,
    OPTION_UNTIL,
    OPTION_ISSUE,
    OPTION_STATE,
    OPTION_TIMEZONE,
    OPTION_FORMAT,
    OPTION_TEXTFILE,
    OPTION_BUS,
};

constexpr std::array OPTIONS{
    option{"json", no_argument, nullptr, OPTION_JSON},
    option{"since", required_argument, nullptr, OPTION_SINCE},
    option{"until", required_argument, nullptr, OPTION_UNTIL},
    option{"issue", required_argument, nullptr, OPTION_ISSUE},
    option{"state", required_argument, nullptr, OPTION_STATE},
    option{"timezone", required_argument, nullptr, OPTION_TIMEZONE},
    option{"format", required_argument, nullptr, OPTION_FORMAT},
    option{"textfile", required_argument, nullptr, OPTION_TEXTFILE},
    option{"bus", no_argument, nullptr, OPTION_BUS},
    option{"output", required_argument, nullptr, 'o'},
    option{"help", no_argument, nullptr, 'h'},
    option{"version", no_argument, nullptr, 'v'},
    option{nullptr, 0, nullptr, 0},
};

struct CommandName {
    const char *name;
    Command command;
};
constexpr std::array COMMANDS{CommandName{"show", Command::show}, CommandName{"changes", Command::changes},
                              CommandName{"summary", Command::summary}, CommandName{"plot", Command::plot},
                              CommandName{"export", Command::export_data}};

std::optional<Format> format_of(const std::string &name) {
    if (name == "csv") {
        return Format::csv;
    }
    if (name == "jsonl") {
        return Format::jsonl;
    }
    return name == "openmetrics" ? std::optional(Format::openmetrics) : std::nullopt;
}

/// Stores one option. Returns what is wrong with its value; empty if nothing.
std::string take(int character, const std::string &value, Arguments *arguments) {
    switch (character) {
    case OPTION_JSON:
        arguments->json = true;
        break;
    case OPTION_BUS:
        arguments->bus = true;
        break;
    case 'h':
        arguments->help = true;
        break;
    case 'v':
        arguments->version = true;
        break;
    case OPTION_SINCE:
        arguments->since = value;
        break;
    case OPTION_UNTIL:
        arguments->until = value;
        break;
    case OPTION_TIMEZONE:
        arguments->timezone = value;
        break;
    case 'o':
        arguments->output = value;
        break;
    case OPTION_TEXTFILE:
        arguments->textfile = value;
        break;
    case OPTION_ISSUE:
        arguments->issue = issue_of(value);
        return arguments->issue ? "" : "'" + value + "' is not an issue: give CB00 to CB32, or CBnn";
    case OPTION_STATE:
        arguments->state = state_of(value);
        return arguments->state ? "" : "'" + value + "' is not a state: give OK, WARN, FAIL or INV";
    default:
        arguments->format = format_of(value).value_or(Format::none);
        return arguments->format != Format::none ? ""
                                                 : "'" + value + "' is not a format: give csv, jsonl or openmetrics";
    }
    return "";
}

/// Returns which arguments contradict each other; empty if none do.
std::string contradiction(const Arguments &arguments) {
    const bool is_export = arguments.command == Command::export_data;
    const bool has_textfile = !arguments.textfile.empty();
    if (arguments.command == Command::plot && arguments.output.empty()) {
        return "plot needs a file to write to: -o FILE";
    }
    if (is_export && (arguments.format != Format::none) == has_textfile) {
        return "export needs either --format or --textfile";
    }
    if (!is_export && (arguments.format != Format::none || has_textfile)) {
        return "--format and --textfile are for export";
    }
    if (arguments.json && arguments.command != Command::summary) {
        return "--json is for summary; export --format=jsonl writes the records";
    }
    if (arguments.state && arguments.command != Command::show && !is_export) {
        return "--state is for show and export";
    }
    if (has_textfile && (arguments.inputs.size() > 1 || !arguments.since.empty() || !arguments.until.empty())) {
        return "export --textfile takes one log and no times";
    }
    if (arguments.bus && !has_textfile) {
        return "--bus is for export --textfile";
    }
    return "";
}

} // namespace

std::optional<Arguments> read_arguments(int argc, char **argv, std::string *problem) {
    Arguments arguments;
    optind = 0; // start again, also after another command line
    opterr = 0;
    for (int character = 0; (character = getopt_long(argc, argv, ":ho:v", OPTIONS.data(), nullptr)) != -1;) {
        if (character == '?' || character == ':') {
            *problem = std::string(argv[optind - 1]) + (character == '?' ? ": unknown option" : ": needs a value");
            return std::nullopt;
        }
        *problem = take(character, optarg == nullptr ? "" : optarg, &arguments);
        if (!problem->empty()) {
            return std::nullopt;
        }
    }
    arguments.inputs.assign(argv + optind, argv + argc);
    for (const CommandName &each : COMMANDS) {
        if (!arguments.inputs.empty() && arguments.inputs.front() == each.name) {
            arguments.command = each.command;
            arguments.inputs.erase(arguments.inputs.begin());
            break;
        }
    }
    *problem = arguments.help || arguments.version ? "" : contradiction(arguments);
    return problem->empty() ? std::optional(arguments) : std::nullopt;
}

} // namespace vlog
