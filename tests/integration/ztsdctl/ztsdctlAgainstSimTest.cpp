// ztsdctl end to end against the ztsd-sim program: the one-line errors (and
// the same as one JSON object on stderr with --json), devices by host and
// name, watches (SIGTERM ending one cleanly, an unreachable member, CSV and
// metrics).
#include <atomic>
#include <csignal>
#include <map>
#include <thread>
#include <regex>
#include <string>
#include <vector>

#include "integration/ztsdctl/ztsdctlTestSupport.h"
#include "ztsd-sim/socketControl.h"

using ctltest::at;
using ctltest::num;
using ctltest::str;

namespace {

namespace net = ztsdsim::net;

// libcurl's message says how long the connect took; runs differ in that.
std::string withoutDuration(const std::string& text) {
    return std::regex_replace(text, std::regex(R"(after \d+ ms)"), "after N ms");
}

// A TCP connection to 127.0.0.1:port, closed when it goes; -1 when refused.
class LoopbackConnection {
public:
    // A loopback connect is answered at once, and a byte at a time never
    // fills the send buffer, so neither call can block for long.
    explicit LoopbackConnection(int port) : socket_(net::connectTo("127.0.0.1", static_cast<std::uint16_t>(port))) {}
    ~LoopbackConnection() { net::closeSocket(socket_); }
    LoopbackConnection(const LoopbackConnection&) = delete;
    LoopbackConnection& operator=(const LoopbackConnection&) = delete;
    bool open() const { return socket_ != net::kNoSocket; }
    void send(char byte) { (void)net::sendSome(socket_, &byte, 1); }

private:
    net::Socket socket_;
};

class ZtsdctlAgainstSim : public ::testing::Test {
protected:
    void SetUp() override {
        ZTSDCTL_REQUIRED();
        ZTSD_SIM_REQUIRED();
        sim = std::make_unique<simtest::ChildProcess>(
            std::vector<std::string>{simtest::simPath(), "--chassis", "2", "--devices-per-chassis", "2"});
        ASSERT_TRUE(sim->waitForOutput("\nready\n", 5000)) << sim->out();
        chassis = simtest::chassisLines(sim->out());
        ASSERT_EQ(chassis.size(), 2u);
    }
    void TearDown() override {
        if (sim) sim->signal(SIGTERM);
    }

    std::string address(int c) { return str(at(chassis[c].get(), "address")); }
    std::string host(int c) { return str(at(chassis[c].get(), "remoteHost")); }
    std::string deviceUri(int c, int d) {
        return str(at(cJSON_GetArrayItem(at(chassis[c].get(), "devices"), d), "uri"));
    }
    int control(int c, const std::string& path) { return simtest::postControl(str(at(chassis[c].get(), "control")), path); }
    std::vector<std::string> domain(int c, const std::vector<std::string>& more) {
        return ctltest::domainCommand({address(c)}, more);
    }

    std::unique_ptr<simtest::ChildProcess> sim;
    std::vector<simtest::Json> chassis;
};

}  // namespace

// Library errors: one line with the innermost message and where (the
// member: a device by its URI, a chassis by its address, a timescale by its
// URI; and host:port of the peer that failed, the daemon's when it was the
// daemon); with --json the same as the only thing on stderr, one JSON object.
TEST_F(ZtsdctlAgainstSim, LibraryErrorsAreOneLineOrOneJsonObject) {
    ASSERT_EQ(control(1, "down"), 200);
    struct Case {
        std::vector<std::string> args;
        std::string line;  // the line, a regular expression
        int httpStatus;
        std::string member;
        std::string hostPort;
    };
    const std::string closedDaemon = std::to_string(static_cast<int>(num(at(chassis[1].get(), "daemonPort"))));
    const std::string timescale = str(cJSON_GetArrayItem(at(chassis[0].get(), "timescales"), 0));
    const std::string nobody = "/" + host(0) + "/ztsdwebs/resources/ztsd/syncableDevices/nobody";
    const std::vector<Case> cases{
        {{"device", host(0), "nobody"},
         "ztsdctl: " + nobody + ": Server answered 404 Not Found\\. \\(HTTP 404\\) \\[ztapalerr_communicationsFault -52024\\]",
         404, nobody, host(0)},
        {{"device", deviceUri(1, 0)},
         "ztsdctl: " + deviceUri(1, 0) +
             ": Failed to connect to 127\\.0\\.0\\.1 port \\d+.* \\[ztapalerr_communicationsFault -52024\\]",
         0, deviceUri(1, 0), host(1)},
        {{"list", address(1)},
         "ztsdctl: chassis " + address(1) + ": .*\\[ztapalerr_communicationsFault -52024\\]", 0, "chassis " + address(1),
         host(1)},
        {{"list", host(0) + "@" + closedDaemon},
         "ztsdctl: chassis " + host(0) + "@" + closedDaemon + ": 127\\.0\\.0\\.1:" + closedDaemon +
             ": .*Connection refused\\.? \\[ztapalerr_communicationsFault -52024\\]",  // Winsock's text ends with a period
         0, "chassis " + host(0) + "@" + closedDaemon, "127.0.0.1:" + closedDaemon},
        {{"time", timescale, "127.0.0.1", closedDaemon},
         "ztsdctl: " + timescale + ": 127\\.0\\.0\\.1:" + closedDaemon +
             ": .*Connection refused\\.? \\[ztapalerr_communicationsFault -52024\\]",  // Winsock's text ends with a period
         0, timescale, "127.0.0.1:" + closedDaemon},
        {{"time", timescale, "::1", closedDaemon},
         "ztsdctl: " + timescale + ": \\[::1\\]:" + closedDaemon + ": .* \\[ztapalerr_communicationsFault -52024\\]", 0,
         timescale, "[::1]:" + closedDaemon},
        {domain(0, {"--device", nobody}),
         "ztsdctl: " + nobody + ": Server answered 404 Not Found\\. \\(HTTP 404\\) \\[ztapalerr_communicationsFault -52024\\]",
         404, nobody, host(0)},
    };
    for (const Case& c : cases) {
        const ctltest::Run text = ctltest::run(c.args);
        EXPECT_EQ(text.exitStatus, 2);
        EXPECT_TRUE(std::regex_match(text.err, std::regex(c.line + "\n"))) << text.err;

        std::vector<std::string> args = c.args;
        args.push_back("--json");
        const ctltest::Run json = ctltest::run(args);
        EXPECT_EQ(json.exitStatus, 2);
        EXPECT_EQ(json.out, "");
        ASSERT_EQ(ctltest::lines(json.err).size(), 1u) << json.err;
        const simtest::Json error = simtest::parse(json.err);
        ASSERT_TRUE(error) << json.err;
        const cJSON* body = at(error.get(), "error");
        EXPECT_EQ(num(at(body, "code")), -52024);
        EXPECT_EQ(str(at(body, "constant")), "ztapalerr_communicationsFault");
        EXPECT_EQ(num(at(body, "httpStatus")), c.httpStatus);
        EXPECT_EQ(str(at(body, "member")), c.member);
        EXPECT_EQ(str(at(body, "hostPort")), c.hostPort);
        EXPECT_NE(withoutDuration(text.err).find(withoutDuration(str(at(body, "message")))), std::string::npos)
            << json.err;
        EXPECT_EQ(str(at(at(body, "report"), "error_constant")), "ztapalerr_communicationsFault");

        args.back() = "-v";
        const ctltest::Run verbose = ctltest::run(args);
        const std::vector<std::string> lines = ctltest::lines(verbose.err);
        ASSERT_EQ(lines.size(), 2u) << verbose.err;
        EXPECT_EQ(withoutDuration(lines[0] + "\n"), withoutDuration(text.err));
        EXPECT_TRUE(simtest::parse(lines[1]));
    }
}

// A daemon that answers, but wrongly, is named as the command addressed it,
// like one that is not there.
TEST(ZtsdctlAgainstBrokenDaemons, TimeNamesTheDaemon) {
    ZTSDCTL_REQUIRED();
    ZTSD_SIM_REQUIRED();
    for (const char* personality : {"wrong-method-name", "huge-lengths", "http-server"}) {
        simtest::ChildProcess sim({simtest::simPath(), "--daemon-personality", personality});
        ASSERT_TRUE(sim.waitForOutput("\nready\n", 5000)) << sim.out();
        const std::vector<simtest::Json> chassis = simtest::chassisLines(sim.out());
        ASSERT_EQ(chassis.size(), 1u);
        const std::string port = std::to_string(static_cast<int>(num(at(chassis[0].get(), "daemonPort"))));
        const std::string daemon = "127.0.0.1:" + port;
        const std::string timescale = str(cJSON_GetArrayItem(at(chassis[0].get(), "timescales"), 0));
        const std::vector<std::string> args{"time", timescale, "127.0.0.1", port};
        const ctltest::Run text = ctltest::run(args);
        EXPECT_EQ(text.exitStatus, 2) << personality;
        EXPECT_EQ(text.err.rfind("ztsdctl: " + timescale + ": " + daemon + ": ", 0), 0u)
            << personality << "\n" << text.err;
        std::vector<std::string> withJson = args;
        withJson.push_back("--json");
        const simtest::Json json = simtest::parse(ctltest::run(withJson).err);
        ASSERT_TRUE(json) << personality;
        EXPECT_EQ(str(at(at(json.get(), "error"), "hostPort")), daemon) << personality;
        sim.signal(SIGINT);
        EXPECT_EQ(sim.finish(5000), 0);
    }
}

// Every device of a chassis, by host and name.
TEST_F(ZtsdctlAgainstSim, DeviceByHostAndName) {
    for (int d = 0; d < 2; ++d) {
        const std::string name = d == 0 ? "chassis0" : "chassis0-1";
        const ctltest::Run result = ctltest::run({"device", host(0), name, "--json"});
        EXPECT_EQ(result.exitStatus, 0) << result.err;
        const simtest::Json json = simtest::parse(result.out);
        EXPECT_EQ(str(at(json.get(), "uri")), deviceUri(0, d));
    }
}

// A chassis' second device joins a domain, named by --device or with every
// device of the chassis (--all-devices), and is watched as a member of its own.
TEST_F(ZtsdctlAgainstSim, ASecondDeviceOfAChassisIsAMember) {
    for (const std::vector<std::string>& choice :
         {std::vector<std::string>{"--device", deviceUri(0, 1)}, std::vector<std::string>{"--all-devices"}}) {
        std::vector<std::string> options = choice;
        for (const char* more : {"--watch", "0.05", "--checks", "1", "--json"}) options.push_back(more);
        const ctltest::Run result = ctltest::run(domain(0, options));
        EXPECT_EQ(result.exitStatus, 0) << result.err;
        std::vector<std::string> uris;
        for (const std::string& line : ctltest::lines(result.out)) {
            const simtest::Json event = simtest::parse(line);
            if (str(at(event.get(), "event")) != "check") continue;
            const cJSON* member = nullptr;
            cJSON_ArrayForEach(member, at(event.get(), "members")) uris.push_back(str(at(member, "uri")));
        }
        EXPECT_EQ(uris, (std::vector<std::string>{deviceUri(0, 0), deviceUri(0, 1)})) << choice[0] << result.out;
    }
}

// SIGTERM ends a watch as Ctrl-C does: a stopped event, exit 0 (held).
TEST_F(ZtsdctlAgainstSim, SigtermEndsAWatchWithAStoppedEvent) {
    ctltest::Ztsdctl child(domain(0, {"--watch", "0.05", "--json"}));
    ASSERT_TRUE(child.waitForOutput("\"event\":\"check\"", 6000)) << child.out() << child.err();
    child.signal(SIGTERM);
    EXPECT_EQ(child.finish(5000), 0) << child.err();
    const std::vector<std::string> lines = ctltest::lines(child.out());
    ASSERT_FALSE(lines.empty());
    const simtest::Json stopped = simtest::parse(lines.back());
    EXPECT_EQ(str(at(stopped.get(), "event")), "stopped");
    EXPECT_TRUE(cJSON_IsTrue(at(stopped.get(), "interrupted")));
    for (const std::string& line : lines) {
        const simtest::Json event = simtest::parse(line);
        EXPECT_TRUE(std::regex_match(str(at(event.get(), "time")), ctltest::kRfc3339)) << line;
    }
}

// A member that goes down during a watch becomes a row saying so, and the
// watch goes on; coherency did not hold (exit 1).
TEST_F(ZtsdctlAgainstSim, AnUnreachableMemberIsARowAndTheWatchGoesOn) {
    std::vector<std::string> args = domain(0, {"--watch", "0.2", "--checks", "8", "--json"});
    args.insert(args.begin() + 2, address(1));
    ctltest::Ztsdctl child(args);
    ASSERT_TRUE(child.waitForOutput("\"event\":\"check\"", 6000)) << child.out() << child.err();
    ASSERT_EQ(control(1, "down"), 200);
    ASSERT_TRUE(child.waitForOutput("\"reachable\":false", 6000)) << child.out();
    ASSERT_EQ(control(1, "up"), 200);
    EXPECT_EQ(child.finish(8000), 1) << child.err();

    bool sawDown = false, sawBack = false;
    for (const std::string& line : ctltest::lines(child.out())) {
        const simtest::Json event = simtest::parse(line);
        ASSERT_TRUE(event) << line;
        if (str(at(event.get(), "event")) != "check") continue;
        const cJSON* member = cJSON_GetArrayItem(at(event.get(), "members"), 1);
        EXPECT_EQ(str(at(member, "uri")), deviceUri(1, 0));
        if (cJSON_IsFalse(at(member, "reachable"))) {
            sawDown = true;
            EXPECT_TRUE(cJSON_IsFalse(at(event.get(), "coherentSinceLastCheck")));
            EXPECT_NE(str(at(member, "error")).find(host(1) + ": "), std::string::npos) << line;
        } else if (sawDown) {
            sawBack = true;
        }
    }
    EXPECT_TRUE(sawDown && sawBack) << child.out();
    EXPECT_EQ(str(at(simtest::parse(ctltest::lines(child.out()).back()).get(), "event")), "stopped");
}

// --format csv: a header, then one row of eleven fields per member and check;
// stdout holds nothing else.
TEST_F(ZtsdctlAgainstSim, WatchAsCsv) {
    std::vector<std::string> args = domain(0, {"--watch", "0.05", "--checks", "2", "--format", "csv"});
    args.insert(args.begin() + 2, address(1));
    const ctltest::Run result = ctltest::run(args);
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    const std::vector<std::string> rows = ctltest::lines(result.out);
    ASSERT_EQ(rows.size(), 5u) << result.out;
    EXPECT_EQ(rows[0],
              "time,check,elapsed_ms,coherentSinceLastCheck,coherentSinceStart,member,reachable,isCoherent,"
              "coherencyLossCount,lossesSinceLastCheck,error");
    const std::regex row(R"((\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z),([12]),\d+,true,true,([^,]+),true,true,0,0,)");
    for (std::size_t i = 1; i < rows.size(); ++i) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(rows[i], match, row)) << rows[i];
        EXPECT_EQ(match[2].str(), i <= 2 ? "1" : "2");
        EXPECT_EQ(match[3].str(), deviceUri((i - 1) % 2, 0));
    }
    EXPECT_EQ(ctltest::run(domain(0, {"--format", "csv"})).exitStatus, 64);  // no checks to print
}

// --metrics-listen: scraped over HTTP while a member is down, every line is
// a comment (# HELP / # TYPE) or a sample of the text exposition format, and
// the figures are the watch's.
TEST_F(ZtsdctlAgainstSim, MetricsAreScrapedInTheExpositionFormat) {
    std::vector<std::string> args =
        domain(0, {"--watch", "0.1", "--checks", "30", "--metrics-listen", "127.0.0.1:0", "--json"});
    args.insert(args.begin() + 2, address(1));
    ctltest::Ztsdctl child(args);
    ASSERT_TRUE(child.waitForOutput("\"event\":\"check\"", 6000)) << child.err();
    const std::smatch url = [&] {
        std::smatch m;
        std::regex_search(child.err(), m, std::regex(R"(metrics at http://127\.0\.0\.1:(\d+)/metrics)"));
        return m;
    }();
    ASSERT_FALSE(url.empty()) << child.err();
    ASSERT_EQ(control(1, "down"), 200);
    ASSERT_TRUE(child.waitForOutput("\"reachable\":false", 6000));
    httplib::Client client("127.0.0.1", std::stoi(url[1].str()));
    client.set_read_timeout(5, 0);
    const httplib::Result reply = client.Get("/metrics");
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, 200);
    EXPECT_EQ(reply->get_header_value("Content-Type"), "text/plain; version=0.0.4; charset=utf-8");
    child.signal(SIGTERM);
    EXPECT_EQ(child.finish(5000), 1);  // coherency did not hold while a member was down

    const std::regex help(R"(# HELP [a-zA-Z_:][a-zA-Z0-9_:]* .+)");
    const std::regex type(R"(# TYPE ([a-zA-Z_:][a-zA-Z0-9_:]*) (counter|gauge|histogram))");
    const std::regex sample(
        R"(([a-zA-Z_:][a-zA-Z0-9_:]*)\{([a-zA-Z_][a-zA-Z0-9_]*="(?:[^"\\\n]|\\["\\n])*")(,[a-zA-Z_][a-zA-Z0-9_]*="(?:[^"\\\n]|\\["\\n])*")*\} ([-+]?(?:[0-9.]+(?:e[-+]?[0-9]+)?|Inf|NaN)))");
    std::map<std::string, std::string> typed;
    std::map<std::string, double> values;  // "name{labels}" -> value
    std::string family;
    for (const std::string& line : ctltest::lines(reply->body)) {
        std::smatch match;
        if (std::regex_match(line, match, type)) {
            family = match[1];
            EXPECT_EQ(typed.count(family), 0u) << "two TYPE lines for " << family;
            typed[family] = match[2];
        } else if (std::regex_match(line, match, sample)) {
            const std::string name = match[1];
            EXPECT_EQ(name.rfind(family, 0), 0u) << "sample outside its family: " << line;
            values[line.substr(0, line.rfind(' '))] = std::stod(match[4]);
        } else {
            EXPECT_TRUE(std::regex_match(line, help)) << "not exposition format: " << line;
        }
    }
    const std::map<std::string, std::string> families{
        {"ztsd_domain_coherent", "gauge"},       {"ztsd_member_coherent", "gauge"},
        {"ztsd_member_reachable", "gauge"},      {"ztsd_member_coherency_losses_total", "counter"},
        {"ztsd_check_duration_seconds", "histogram"}, {"ztsd_check_errors_total", "counter"}};
    EXPECT_EQ(typed, families);
    const std::string domainLabel = "domain=\"/localhost/ztsdctl/syncDomains/default\"";
    const auto member = [&](const char* name, int c) {
        return std::string(name) + "{" + domainLabel + ",member=\"" + deviceUri(c, 0) + "\"}";
    };
    EXPECT_EQ(values[member("ztsd_member_reachable", 0)], 1);
    EXPECT_EQ(values[member("ztsd_member_reachable", 1)], 0);
    EXPECT_EQ(values[member("ztsd_member_coherent", 1)], 0);
    EXPECT_EQ(values["ztsd_domain_coherent{" + domainLabel + "}"], 0);
    EXPECT_GE(values["ztsd_check_errors_total{" + domainLabel + ",code=\"-52024\"}"], 1);
    const double count = values["ztsd_check_duration_seconds_count{" + domainLabel + "}"];
    EXPECT_GE(count, 2);
    EXPECT_EQ(values["ztsd_check_duration_seconds_bucket{" + domainLabel + ",le=\"+Inf\"}"], count);
    EXPECT_LE(values["ztsd_check_duration_seconds_bucket{" + domainLabel + ",le=\"0.005\"}"], count);
}

// Idle and slow clients of the metrics port cannot keep a scrape waiting:
// with 500 connections that send nothing and one that sends a byte a second,
// GET /metrics is answered within 1 s, again and again.
TEST_F(ZtsdctlAgainstSim, MetricsAreAnsweredWhateverIdleClientsHold) {
    ctltest::Ztsdctl child(domain(0, {"--watch", "0.2", "--checks", "100", "--metrics-listen", "127.0.0.1:0"}));
    ASSERT_TRUE(child.waitForError("/metrics\n", 6000)) << child.err();
    std::smatch url;
    const std::string err = child.err();
    ASSERT_TRUE(std::regex_search(err, url, std::regex(R"(metrics at http://127\.0\.0\.1:(\d+)/metrics)"))) << err;
    const int port = std::stoi(url[1].str());

    std::vector<std::unique_ptr<LoopbackConnection>> idle;
    for (int i = 0; i < 500; ++i) idle.push_back(std::make_unique<LoopbackConnection>(port));
    EXPECT_TRUE(idle.back()->open());
    std::atomic<bool> scraped{false};
    std::thread slow([&] {
        LoopbackConnection connection(port);
        const std::string request = "GET /metrics HTTP/1.1\r\n";
        for (std::size_t i = 0; i < request.size() && !scraped; ++i) {
            connection.send(request[i]);
            for (int ms = 0; ms < 1000 && !scraped; ms += 10) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    });
    [&] {  // a failed assertion leaves this lambda only: the slow client is still joined
        for (int scrape = 0; scrape < 3; ++scrape) {
            httplib::Client client("127.0.0.1", port);
            client.set_connection_timeout(1, 0);
            client.set_read_timeout(1, 0);
            client.set_write_timeout(1, 0);
            const httplib::Result reply = client.Get("/metrics");
            ASSERT_TRUE(reply) << "scrape " << scrape << ": " << httplib::to_string(reply.error());
            EXPECT_EQ(reply->status, 200);
            EXPECT_NE(reply->body.find("ztsd_domain_coherent"), std::string::npos);
            const httplib::Result elsewhere = client.Get("/");
            ASSERT_TRUE(elsewhere);
            EXPECT_EQ(elsewhere->status, 404);
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
        }
    }();
    scraped = true;
    slow.join();
    child.signal(SIGINT);
    EXPECT_EQ(child.finish(5000), 0);
}
