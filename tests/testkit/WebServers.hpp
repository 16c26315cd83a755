// Web servers on 127.0.0.1 for the tests of remote archives: nginx serving the files
// of a folder of its own, started for a test and stopped with it, and a small server
// inside the test process that answers as it is scripted to (stalls, bad ranges,
// files that change between requests: answers no well-behaved server gives).
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "HelperProcesses.hpp"
#include "TestSupport.hpp"

namespace whittle::test {

sockaddr_in loopback(int port);
// A socket listening on 127.0.0.1, on a port the system chooses (answered in port).
int listeningSocket(int& port);
// A port nothing listens on (at the time of the call).
int freePort();
bool accepts(int port);

// The installed nginx, or "" when there is none.
std::string nginxBinary();

// What the server's access log says it sent for one path.
struct Served {
    std::uint64_t requests = 0;
    std::uint64_t bodyBytes = 0;
};

// nginx in the foreground, one process, with its configuration, pid file, logs and
// temporary folders in a folder of its own, serving the files of www/. Beside the
// files: "/whole/NAME" serves www/NAME without honouring ranges, "/broken" answers
// 500, "/loop" redirects to itself, "/moved" redirects to "/data.bin".
class WebServer {
public:
    WebServer();
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    bool running() const { return program_ != nullptr; }
    std::string url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }
    std::string file(const std::string& name) const { return folder_ / ("www/" + name); }

    // Waits for the log to show `requests` requests for the path (it is written as
    // each answer ends, which may be just after the client has the last byte).
    Served served(const std::string& path, std::uint64_t requests) const;
    // What the log says so far for the path, without waiting.
    Served servedSoFar(const std::string& path) const;

private:
    void start();
    std::string configuration() const;

    TempDir folder_;
    int port_ = 0;
    std::unique_ptr<BackgroundProgram> program_;
};

// One answer of the scripted server: bytes sent as they are, after which the
// connection is closed, or kept open and silent until the server stops.
struct Reply {
    std::string bytes;
    bool stallAfter = false;
};

// An HTTP answer with these header lines (each without its line end) and body.
std::string answer(const std::string& statusLine, const std::vector<std::string>& headers, const std::string& body);
// A 206 answer carrying bytes first to last (inclusive) of content.
std::string partial(const std::string& content, std::uint64_t first, std::uint64_t last,
                    const std::vector<std::string>& extra = {"ETag: \"v1\""});
// The answer a server honouring ranges gives to a request for content under this
// ETag: the part its Range header asks for ("bytes=A-B" or "bytes=-N"), or the whole
// content with 200 when its If-Range names another ETag or it asks for no range.
std::string rangedAnswer(const std::string& request, const std::string& content, const std::string& etag);

// Answers each connection's request, one request a connection, and keeps the requests.
class ScriptedServer {
public:
    // The answer to the request, given with its number (from 0).
    using Responder = std::function<Reply(const std::string& request, std::size_t index)>;

    // The replies, in order, one per connection; further connections are not accepted.
    explicit ScriptedServer(std::vector<Reply> replies);
    explicit ScriptedServer(Responder responder);
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    std::string url(const std::string& path = "/a.zip") const {
        return "http://127.0.0.1:" + std::to_string(port_) + path;
    }
    std::vector<std::string> requests() const;

private:
    // Waits for the descriptor to be readable; false once the server is stopped.
    bool waitFor(int fd) const;
    void start(std::size_t replyLimit);
    void serve(std::size_t replyLimit);
    std::string readRequest(int connection) const;

    Responder responder_;
    int listener_ = -1;
    int port_ = 0;
    int stop_[2] = {-1, -1};
    std::thread thread_;
    mutable std::mutex mutex_;
    std::vector<std::string> requests_;
};

}  // namespace whittle::test
