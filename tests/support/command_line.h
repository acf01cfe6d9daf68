#pragma once

// A command line, the option parser's result for it, and the warnings that it prints.

#include "vigmond/options.h"

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

/// Arguments as main gets them.
class Arguments {
  public:
    explicit Arguments(std::vector<std::string> arguments) : texts_(std::move(arguments)) {
        for (std::string &text : texts_) {
            pointers_.push_back(text.data());
        }
        pointers_.push_back(nullptr);
    }
    [[nodiscard]] int count() const { return static_cast<int>(texts_.size()); }
    char **pointers() { return pointers_.data(); }

  private:
    std::vector<std::string> texts_;
    std::vector<char *> pointers_;
};

struct Parsed {
    Options options;
    std::string printed; ///< on stderr
};

/// Parses the arguments after the program's name.
inline Parsed parse(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "/usr/bin/vigmond");
    Arguments all(std::move(arguments));
    testing::internal::CaptureStderr();
    const Options options = eat_arguments(all.count(), all.pointers());
    return {.options = options, .printed = testing::internal::GetCapturedStderr()};
}

/// What `call` prints on stderr.
inline std::string printed_by(const std::function<void()> &call) {
    testing::internal::CaptureStderr();
    call();
    return testing::internal::GetCapturedStderr();
}

// The warnings of the program "vigmond".

inline std::string invalid_value(char option, const std::string &given, int used) {
    return std::string("vigmond: WARNING: option -") + option + ": invalid value \"" + given + "\" - using \"" +
           std::to_string(used) + "\" instead.\n";
}

inline std::string invalid_argument(char option, const std::string &given, const std::string &used) {
    return std::string("vigmond: WARNING: option -") + option + ": invalid argument \"" + given + "\" - using \"" +
           used + "\" instead.\n";
}

inline std::string invalid_option(char option) {
    return std::string("vigmond: WARNING: invalid option -") + option + " - ignored.\n";
}
