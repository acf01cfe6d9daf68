#include "builtin.h"
#include "call_results.h"
#include "probe_test.h"
#include "scratch_folder.h"

#include <cerrno>
#include <climits>

namespace {

struct Line {
    std::string text;
    Reading expected;
};

void expect_readings(const std::vector<Line> &lines) {
    for (const Line &line : lines) {
        EXPECT_EQ(temperature_parse(line.text.c_str()), line.expected) << line.text.substr(0, 40);
    }
}

constexpr Reading UNUSABLE = Reading::failed(EINVAL);

} // namespace

// (millidegrees + 499) / 1000, truncated toward zero; the comments show the quotient.
TEST(TemperatureParse, RoundsWithAnOffsetOf499TowardZero) {
    expect_readings({
        {"0", Reading::of(0)},          // 0.499
        {"500", Reading::of(0)},        // 0.999
        {"501", Reading::of(1)},        // 1.0
        {"1500", Reading::of(1)},       // 1.999
        {"1501", Reading::of(2)},       // 2.0
        {"42500", Reading::of(42)},     // 42.999
        {"42999\n", Reading::of(43)},   // 43.498
        {"-500", Reading::of(0)},       // -0.001
        {"-1498", Reading::of(0)},      // -0.999
        {"-1499", Reading::of(-1)},     // -1.0
        {"-1500", Reading::of(-1)},     // -1.001
        {"-2498", Reading::of(-1)},     // -1.999
        {"-2499", Reading::of(-2)},     // -2.0
        {"-40000", Reading::of(-39)},   // -39.501
        {"-273150", Reading::of(-272)}, // -272.651
        {"1500.9", Reading::of(1)},     // 1.9999
        {"1501000", Reading::of(1501)}, // 1501.499
    });
}

TEST(TemperatureParse, AcceptsWhateverTheConversionAccepts) {
    expect_readings({
        {"   42999", Reading::of(43)},
        {"\t\v\r42999", Reading::of(43)},
        {"+5000", Reading::of(5)},   // 5.499
        {"0x10", Reading::of(0)},    // 16: 0.515
        {"0x9C40", Reading::of(40)}, // 40000: 40.499
        {"4.2999e4", Reading::of(43)},
        {".5e4", Reading::of(5)}, // 5000: 5.499
        {"42999 C", Reading::of(43)},
        {"42999garbage", Reading::of(43)},
        {"1e-400", Reading::of(0)}, // too small for a double: 0
        {"-1e-400", Reading::of(0)},
        {std::string(4000, '0') + "42999", Reading::of(43)},
    });
}

TEST(TemperatureParse, RejectsWhatIsNotANumber) {
    expect_readings({
        {"", UNUSABLE},
        {"\n", UNUSABLE},
        {"   \n", UNUSABLE},
        {"-", UNUSABLE},
        {"+-5", UNUSABLE},
        {".", UNUSABLE},
        {"e5", UNUSABLE},
        {"hot", UNUSABLE},
        {"C 42999", UNUSABLE},
        {std::string("\0"
                     "42999",
                     6),
         UNUSABLE},
    });
}

TEST(TemperatureParse, RejectsNumbersOutsideTheRangeOfAValue) {
    expect_readings({
        {"inf", UNUSABLE},
        {"-inf", UNUSABLE},
        {"Infinity", UNUSABLE},
        {"nan", UNUSABLE},
        {"-nan(7)", UNUSABLE},
        {"1e300", UNUSABLE},
        {"-1e300", UNUSABLE},
        {"1e999", UNUSABLE},
        {std::string(4000, '9'), UNUSABLE},
        {"2147483647500", Reading::of(INT32_MAX)},  // 2147483647.999
        {"2147483647501", UNUSABLE},                // 2147483648
        {"-2147483649498", Reading::of(INT32_MIN)}, // -2147483648.999
        {"-2147483649499", UNUSABLE},               // -2147483649
    });
}

namespace {

class Temperature : public testing::Test {
  protected:
    [[nodiscard]] const char *file(const std::string &content) {
        path_ = scratch.write("temp", content);
        return path_.c_str();
    }

    ScratchFolder scratch;
    CallResults calls;

  private:
    std::string path_;
};

} // namespace

TEST_F(Temperature, MeasuresTheFirstLine) {
    expect_measured(temperature_exec, probe_task(file("42999\n")), 43);
    expect_measured(temperature_exec, probe_task(file("42999")), 43);
    expect_measured(temperature_exec, probe_task(file("42999\n80000\n")), 43);
    EXPECT_TRUE(calls.opened_close_on_exec());
}

TEST_F(Temperature, ReadsAtMost127Characters) {
    expect_measured(temperature_exec, probe_task(file(std::string(122, '0') + "42999\n")), 43);
    expect_measured(temperature_exec, probe_task(file(std::string(123, '0') + "42999\n")), 4); // 4299: 4.798
}

TEST_F(Temperature, FailsWithoutANumberInTheFirstLine) {
    for (const std::string &content :
         {std::string{}, std::string("\n42999\n"), std::string("hot\n"), std::string("nan\n"), std::string("1e300\n"),
          std::string(127, ' ') + "42999\n", std::string(4000, '9'),
          std::string("\0"
                      "42999",
                      6)}) {
        expect_failed(temperature_exec, probe_task(file(content)), EINVAL);
    }
}

TEST_F(Temperature, FailsWithTheErrorOfTheOpen) {
    const std::string missing = scratch / "missing";
    expect_failed(temperature_exec, probe_task(missing.c_str()), ENOENT);
    const std::string below_a_file = std::string(file("42999\n")) + "/temp";
    expect_failed(temperature_exec, probe_task(below_a_file.c_str()), ENOTDIR);
    calls.fail(Call::fopen, EACCES);
    expect_failed(temperature_exec, probe_task(file("42999\n")), EACCES);
}

TEST_F(Temperature, FindsNoLineInAFolder) {
    expect_failed(temperature_exec, probe_task(scratch.path().c_str()), EINVAL);
}

TEST_F(Temperature, CountsAFailedOpenWithoutErrorNumberAsAbsoluteZero) {
    calls.fail(Call::fopen, 0);
    const CapturedTraces traces;
    expect_measured(temperature_exec, probe_task(file("42999\n")), -273);
    expect_traces(traces, "temperature", {"CPU temp: -273 Celsius"});
}

TEST_F(Temperature, TracesTheMeasurement) {
    const CapturedTraces traces;
    expect_measured(temperature_exec, probe_task(file("42999\n")), 43);
    expect_traces(traces, "temperature", {"CPU temp: 43 Celsius"});
}

TEST_F(Temperature, TracesTheFailure) {
    const CapturedTraces traces;
    expect_failed(temperature_exec, probe_task(file("")), EINVAL);
    expect_traces(traces, "temperature", {"FAILED!"});
}

TEST_F(Temperature, RecoversFromAFailedRun) {
    const std::string path = scratch / "temp";
    Task task = probe_task(path.c_str());
    EXPECT_EQ(temperature_exec(&task), -1);
    scratch.write("temp", "50000\n");
    EXPECT_EQ(temperature_exec(&task), 0);
    EXPECT_EQ(task.value, 50); // 50.499
    EXPECT_TRUE(task_has(&task, TASK_VALUE_VALID));
}

TEST_F(Temperature, LeaksNoDescriptor) {
    expect_no_descriptor_kept(temperature_exec, probe_task(file("42999\n")), 0);
    expect_no_descriptor_kept(temperature_exec, probe_task(file("")), -1);
    expect_no_descriptor_kept(temperature_exec, probe_task(scratch.path().c_str()), -1);
    expect_no_descriptor_kept(temperature_exec, probe_task("/nowhere"), -1);
}

TEST(TemperatureInit, MarksTheTask) { expect_init_marks(temperature_init, "temperature_init"); }
