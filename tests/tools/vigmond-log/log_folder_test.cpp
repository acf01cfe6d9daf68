#include "log_folder.h"

#include "scratch_folder.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

using testing::EndsWith;
using testing::HasSubstr;

namespace {

struct Folder : testing::Test {
    /// The stations of the arguments, or the problem.
    std::string taken(const std::vector<std::string> &arguments) {
        std::string problem;
        const auto stations = vlog::stations_of(arguments, &problem, &is_usage);
        if (!stations) {
            return problem;
        }
        std::string text;
        for (const vlog::StationFiles &station : *stations) {
            text += station.name + ":";
            for (const std::string &path : station.paths) {
                text += " " + path.substr(path.rfind('/') + 1);
            }
            text += "\n";
        }
        return text;
    }
    /// A folder of a station in the scratch folder.
    [[nodiscard]] std::string station(const std::string &name, const std::vector<std::string> &files) const {
        std::filesystem::create_directories(scratch / name);
        for (const std::string &file : files) {
            scratch.write(std::string(name).append("/").append(file), "");
        }
        return scratch / name;
    }
    ScratchFolder scratch;
    bool is_usage = false;
};

} // namespace

TEST_F(Folder, HasTheLogAfterItsGenerationsOldestFirst) {
    const std::string path =
        station("s", {"logfile", "logfile.000.bz2", "logfile.002.bz2", "logfile.010.bz2", "logfile.1000.bz2", ".lock",
                      "logfile.00.bz2", "logfile.000.bz2.new", "logfile.abc.bz2", "load.txt"});
    EXPECT_EQ(taken({path + "/"}), "s: logfile.1000.bz2 logfile.010.bz2 logfile.002.bz2 logfile.000.bz2 logfile\n");
}

TEST_F(Folder, HasALogOfAnotherNameWhenItIsTheOnlyOne) {
    EXPECT_EQ(taken({station("s", {"status", "status.000.bz2"})}), "s: status.000.bz2 status\n");
    EXPECT_THAT(taken({station("t", {"a.000.bz2", "b.000.bz2"})}), HasSubstr("several logs"));
    EXPECT_EQ(taken({station("u", {"a.000.bz2", "b.000.bz2", "logfile"})}), "u: logfile\n");
}

TEST_F(Folder, WithoutALogIsAProblem) {
    EXPECT_THAT(taken({station("empty", {})}), EndsWith("/empty: there is no status log in this folder"));
    EXPECT_THAT(taken({scratch / "missing"}), EndsWith("/missing: No such file or directory"));
    EXPECT_FALSE(is_usage);
}

TEST_F(Folder, IsAStationOfItsOwnAndFilesAreOneTogether) {
    const std::string a = station("a", {"logfile"});
    const std::string b = station("b", {"logfile", "logfile.000.bz2"});
    EXPECT_EQ(taken({a, "north=" + b, "-", b + "/logfile.000.bz2", b + "/logfile", b + "/logfile"}),
              "a: logfile\nnorth: logfile.000.bz2 logfile\n-: - logfile.000.bz2 logfile\n");
    EXPECT_EQ(taken({"one=" + a + "/logfile", a + "/../a/logfile"}), "one: logfile\nlogfile: logfile\n");
}

TEST_F(Folder, MayHaveAnEqualsSignInItsName) { EXPECT_EQ(taken({station("x=y", {"logfile"})}), "x=y: logfile\n"); }

TEST_F(Folder, HasAPlainNameForItsStation) {
    const std::string a = station("a", {"logfile"});
    for (const std::string name : {"", "a b", "a\"b", "a'b", "a\nb", "a\\b", "a<b"}) {
        is_usage = false;
        EXPECT_THAT(taken({std::string(name).append("=").append(a)}), HasSubstr("is not a station name")) << name;
        EXPECT_TRUE(is_usage);
    }
}
