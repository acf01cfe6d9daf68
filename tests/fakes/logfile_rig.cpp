#include "logfile_rig.h"

#include "common.h"
#include "logfile.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace {

constexpr std::string_view STAMP_SHAPE = "dddd-dd-dd dd:dd:dd";

bool starts_with_stamp(std::string_view text) {
    if (text.size() < STAMP_SHAPE.size()) {
        return false;
    }
    for (std::size_t i = 0; i < STAMP_SHAPE.size(); ++i) {
        const bool digit = std::isdigit(static_cast<unsigned char>(text[i])) != 0;
        if (STAMP_SHAPE[i] == 'd' ? !digit : text[i] != STAMP_SHAPE[i]) {
            return false;
        }
    }
    return true;
}

} // namespace

Rotations &rotations() {
    static Rotations noted;
    return noted;
}

std::string mask_times(const std::string &text) {
    std::string masked;
    for (std::size_t i = 0; i < text.size();) {
        if (starts_with_stamp(std::string_view(text).substr(i))) {
            masked += "<time>";
            i += STAMP_SHAPE.size();
        } else {
            masked += text[i++];
        }
    }
    return masked;
}

LogfileTest::LogfileTest() : settings_(gdata_record()) {
    logfile_state() = {};
    rotations() = {};
    set_commandline({"vigmond"});
}

LogfileTest::~LogfileTest() {
    logfile_state() = {};
    rotations() = {};
    gdata_record() = settings_;
}

void LogfileTest::start(const char *name) {
    gdata_record().logfile = name;
    logfile_init();
}

void LogfileTest::use(const std::string &name) { logfile_state().logfile_name.reset(strdup(name.c_str())); }

void LogfileTest::set_commandline(std::vector<std::string> words) {
    std::vector<char *> argv;
    argv.reserve(words.size());
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    gdata_set_commandline(static_cast<int>(argv.size()), argv.data());
}
