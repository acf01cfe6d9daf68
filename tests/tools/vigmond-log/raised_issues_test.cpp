// export --textfile --bus, on a private bus.

#include "bus_daemon.h"
#include "program.h"

#include <algorithm>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

using testing::EndsWith;
using testing::HasSubstr;

namespace {

struct RaisedIssues : Program {
    RaisedIssues() { log = scratch.write("logfile", records); }

    [[nodiscard]] std::string words(const std::string &options = " --bus") const {
        return "export --textfile " + (scratch / "v.prom") + options + " " + log;
    }

    /// Runs it with that bus; status 124 after half a minute.
    [[nodiscard]] Ran run_on(const std::string &variable) const { return run(words(), variable, "timeout 30"); }

    /// The lines of the file about issues.
    [[nodiscard]] std::string issues() const {
        const std::string text = read_file(scratch / "v.prom");
        const std::size_t begin = std::min(text.find("# HELP vigmond_issue_raised"), text.size());
        return text.substr(begin, text.find("# HELP vigmond_up") - begin);
    }

    /// Expects the same file as without --bus.
    void expect_only_the_rest(const Ran &ran, const std::string &problem) {
        EXPECT_EQ(ran.status, 1);
        EXPECT_EQ(ran.err, "vigmond-log: raised issues: " + problem + "\n");
        const std::string text = read_file(scratch / "v.prom");
        EXPECT_EQ(run(words("")).status, 0);
        EXPECT_EQ(text, read_file(scratch / "v.prom"));
        EXPECT_THAT(text, HasSubstr("vigmond_check_value{issue=\"CB20\""));
    }

    const std::string records =
        header("2024-05-01 10:00:00", "START") + record("2024-05-01 10:00:00", "OK", "CB20", "42");
    std::string log;
};

/// A client that owns the daemon's name.
struct OtherOwner {
    explicit OtherOwner(const PrivateBus &bus) : client(bus) {
        client.ask_bus("RequestName", SERVICE_NAME, DBUS_NAME_FLAG_DO_NOT_QUEUE);
    }
    BusMessage wait_for_call() {
        return client.wait_for(
            [](DBusMessage *message) { return dbus_message_is_method_call(message, INTERFACE, "GetListing") != 0; });
    }
    static constexpr const char *INTERFACE = "com.corvana.State2.Issues";
    BusClient client;
};

/// The program with --bus while another client owns the daemon's name, and its call.
struct AnsweredByOther {
    explicit AnsweredByOther(const std::string &words)
        : program({"/bin/sh", "-c", "exec " VIGMOND_LOG " " + words}, {bus.variable(), "TZ=UTC"}),
          call(other.wait_for_call()) {}
    /// A reply without arguments.
    [[nodiscard]] BusMessage reply() const { return BusMessage(dbus_message_new_method_return(call.get())); }
    void send(const BusMessage &reply) const {
        other.client.send(reply);
        dbus_connection_flush(other.client.connection());
    }
    PrivateBus bus;
    OtherOwner other{bus};
    ChildProcess program;
    BusMessage call;
};

void append_issue(DBusMessageIter *array, dbus_uint32_t time, const char *label) {
    DBusMessageIter issue{};
    dbus_message_iter_open_container(array, DBUS_TYPE_STRUCT, nullptr, &issue);
    dbus_message_iter_append_basic(&issue, DBUS_TYPE_UINT32, &time);
    dbus_message_iter_append_basic(&issue, DBUS_TYPE_STRING, static_cast<const void *>(&label));
    dbus_message_iter_close_container(array, &issue);
}

} // namespace

// With the installed policy. Issues of the log that are not raised are 0, so that alerts resolve.
TEST_F(RaisedIssues, AreThoseOfTheDaemon) {
    const PrivateBus bus(BusRules::system);
    BusDaemon daemon(bus);
    BusClient(bus).wait_for_owner(SERVICE_NAME);
    const std::string family = "# HELP vigmond_issue_raised Whether an issue is raised.\n"
                               "# TYPE vigmond_issue_raised gauge\n";
    ASSERT_TRUE(daemon.obey("update 20 1") && daemon.obey("update 7 1"));
    Ran ran = run_on(bus.variable());
    EXPECT_EQ(ran.status, 0) << ran.err;
    EXPECT_EQ(issues(), family + "vigmond_issue_raised{issue=\"CB07\",label=\"\"} 1\n"
                                 "vigmond_issue_raised{issue=\"CB20\",label=\"temperature\"} 1\n"
                                 "vigmond_issue_raised{issue=\"CB21\",label=\"memoryusage\"} 0\n");
    ASSERT_TRUE(daemon.obey("update 20 0") && daemon.obey("update 7 0"));
    ran = run_on(bus.variable());
    EXPECT_EQ(ran.status, 0) << ran.err;
    EXPECT_EQ(issues(), family + "vigmond_issue_raised{issue=\"CB20\",label=\"temperature\"} 0\n"
                                 "vigmond_issue_raised{issue=\"CB21\",label=\"memoryusage\"} 0\n");
    EXPECT_EQ(run("--version >/dev/null; promtool check metrics <" + (scratch / "v.prom") + "; true").err, "");
}

TEST_F(RaisedIssues, HaveTheNamesOfTheirChecksAsLabel) {
    std::string table = header("2024-05-01 10:00:00", "START");
    const std::string row = "##\tmemoryusage \t  CB21\t     0\t";
    for (const std::string added : {"##\ta\"b\\c\t  CB21\t     1\t\n", "##\ta\"b\\c\t  CB21\t     2\t\n"}) {
        table.insert(table.find(row), added);
    }
    scratch.write("logfile", table);
    const PrivateBus bus;
    BusDaemon daemon(bus);
    BusClient(bus).wait_for_owner(SERVICE_NAME);
    EXPECT_EQ(run_on(bus.variable()).status, 0);
    EXPECT_THAT(issues(), HasSubstr("{issue=\"CB21\",label=\"a\\\"b\\\\c,memoryusage\"} 0\n"));
}

TEST_F(RaisedIssues, AreLeftOutWithoutABus) {
    expect_only_the_rest(run_on("DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + (scratch / "missing")),
                         "No such file or directory");
}

// Only --bus loads it, so that an export without is fast.
TEST_F(RaisedIssues, AreLeftOutWithoutTheLibrary) {
    const std::string library = scratch.write("libsystemd.so.0", "");
    const std::string search = "LD_LIBRARY_PATH=" + (scratch / "");
    EXPECT_EQ(run(words(""), search).status, 0);
    expect_only_the_rest(run_on(search), library + ": file too short");
}

TEST_F(RaisedIssues, AreLeftOutWithoutADaemon) {
    const PrivateBus bus;
    expect_only_the_rest(run_on(bus.variable()), "The name com.corvana.vigmond was not provided by any .service files");
}

TEST_F(RaisedIssues, AreNotAwaitedFromASilentDaemon) {
    const PrivateBus bus;
    const OtherOwner silent(bus);
    expect_only_the_rest(run_on(bus.variable()), "Connection timed out");
}

// The kernel accepts the connection, but nobody authenticates it.
TEST_F(RaisedIssues, AreNotAwaitedFromASilentBus) {
    const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    const std::string path = scratch / "bus";
    ASSERT_LT(path.size(), sizeof address.sun_path);
    std::memcpy(static_cast<char *>(address.sun_path), path.data(), path.size());
    ASSERT_EQ(bind(socket.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(socket.get(), 8), 0);
    expect_only_the_rest(run_on("DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + path), "Connection timed out");
}

TEST_F(RaisedIssues, AreOnlyReadFromAListing) {
    AnsweredByOther run(words());
    ASSERT_NE(run.call, nullptr);
    const BusMessage reply = run.reply();
    const char *const text = "CB20";
    dbus_message_append_args(reply.get(), DBUS_TYPE_STRING, static_cast<const void *>(&text), DBUS_TYPE_INVALID);
    run.send(reply);
    EXPECT_TRUE(run.program.errors().wait_for("vigmond-log: raised issues: the reply is no listing"));
    EXPECT_EQ(run.program.wait(), 1);
    EXPECT_EQ(issues(), "");
}

TEST_F(RaisedIssues, HaveTheLabelsOfIssues) {
    AnsweredByOther run(words());
    ASSERT_NE(run.call, nullptr);
    const BusMessage reply = run.reply();
    DBusMessageIter body{};
    DBusMessageIter array{};
    dbus_message_iter_init_append(reply.get(), &body);
    dbus_message_iter_open_container(&body, DBUS_TYPE_ARRAY, "(us)", &array);
    for (const char *label : {"CB33", "CB20", "CBnn", "\"} 1"}) {
        append_issue(&array, 1714557600, label);
    }
    dbus_message_iter_close_container(&body, &array);
    run.send(reply);
    EXPECT_EQ(run.program.wait(), 0);
    EXPECT_THAT(issues(), EndsWith("\nvigmond_issue_raised{issue=\"CBnn\",label=\"\"} 1\n"
                                   "vigmond_issue_raised{issue=\"CB20\",label=\"temperature\"} 1\n"
                                   "vigmond_issue_raised{issue=\"CB21\",label=\"memoryusage\"} 0\n"
                                   "vigmond_issue_raised{issue=\"CB33\",label=\"\"} 1\n"));
}
