#pragma once

// A status log for one test. In programs with recorded_rotation.cpp its rotations are recorded here instead of done.

#include "captured_traces.h"
#include "gdata.h"
#include "scratch_folder.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <vector>

struct Rotation {
    std::string name;
    std::int32_t count;
    std::string content; ///< of the file at the rotation
    bool stream_closed;
};

struct Rotations {
    std::vector<Rotation> calls;
    std::vector<std::string> leftovers; ///< logs whose leftover of a killed rotation was removed
    bool remove = true;                 ///< whether the file is removed, as after a success
    bool is_long = false;               ///< whether rotations ask if they must abort
};

/// The rotations since the start of the test.
Rotations &rotations();

/// `text` with every time stamp replaced by "<time>".
std::string mask_times(const std::string &text);

/// Resets the module, the settings and the recorded rotations before and after each test.
class LogfileTest : public testing::Test {
  public:
    LogfileTest();
    ~LogfileTest() override;

  protected:
    /// Configures `name` and initialises the module.
    static void start(const char *name);
    /// Makes `name` the log without writing a header.
    static void use(const std::string &name);
    /// Sets the daemon's command line.
    static void set_commandline(std::vector<std::string> words);
    /// The log, its time stamps masked.
    [[nodiscard]] std::string log() const { return mask_times(read_file(path)); }

    ScratchFolder folder;
    std::string path = folder / "logfile";
    CapturedTraces traces;

  private:
    GlobalData settings_;
};
