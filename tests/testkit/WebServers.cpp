#include "WebServers.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>
#include <stdexcept>

namespace whittle::test {

using namespace std::chrono_literals;

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

int listeningSocket(int& port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(fd, 16) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        throw std::runtime_error("cannot listen on 127.0.0.1");
    port = ntohs(address.sin_port);
    return fd;
}

int freePort() {
    int port = 0;
    ::close(listeningSocket(port));
    return port;
}

bool accepts(int port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(port);
    bool connected = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return connected;
}

std::string nginxBinary() {
    for (const char* candidate : {"/usr/sbin/nginx", "/usr/local/sbin/nginx", "/usr/bin/nginx"})
        if (::access(candidate, X_OK) == 0) return candidate;
    return {};
}

// ---- nginx ----

WebServer::WebServer() {
    for (int attempt = 0; attempt < 5 && !program_; ++attempt) start();
}

Served WebServer::served(const std::string& path, std::uint64_t requests) const {
    Served found;
    for (auto deadline = std::chrono::steady_clock::now() + 5s; std::chrono::steady_clock::now() < deadline;) {
        found = servedSoFar(path);
        if (found.requests >= requests) break;
        std::this_thread::sleep_for(20ms);
    }
    return found;
}

Served WebServer::servedSoFar(const std::string& path) const {
    Served found;
    std::ifstream log(folder_ / "access.log");
    std::string status, uri;
    std::uint64_t bytes = 0;
    while (log >> status >> bytes >> uri) {
        if (uri != path) continue;
        ++found.requests;
        found.bodyBytes += bytes;
    }
    return found;
}

void WebServer::start() {
    port_ = freePort();
    std::filesystem::create_directories(folder_ / "www");
    writeFile(folder_ / "nginx.conf", configuration());
    program_ = std::make_unique<BackgroundProgram>(std::vector<std::string>{
        nginxBinary(), "-e", folder_ / "error.log", "-p", folder_.path(), "-c", folder_ / "nginx.conf"});
    for (auto deadline = std::chrono::steady_clock::now() + 10s; std::chrono::steady_clock::now() < deadline;) {
        if (accepts(port_)) return;
        if (program_->hasEnded()) break;
        std::this_thread::sleep_for(10ms);
    }
    program_.reset();  // the port was taken meanwhile, or nginx failed: try again
}

std::string WebServer::configuration() const {
    const std::string& d = folder_.path();
    return "daemon off;\nmaster_process off;\nworker_processes 1;\n"
           "pid " + d + "/nginx.pid;\nerror_log " + d + "/error.log;\n"
           "events { worker_connections 64; }\n"
           "http {\n"
           "  log_format counted '$status $body_bytes_sent $request_uri';\n"
           "  access_log " + d + "/access.log counted;\n"
           "  client_body_temp_path " + d + "/client_body;\n  proxy_temp_path " + d + "/proxy;\n"
           "  fastcgi_temp_path " + d + "/fastcgi;\n  uwsgi_temp_path " + d + "/uwsgi;\n"
           "  scgi_temp_path " + d + "/scgi;\n"
           "  default_type application/octet-stream;\n"
           "  server {\n"
           "    listen 127.0.0.1:" + std::to_string(port_) + ";\n"
           "    root " + d + "/www;\n"
           "    location /whole/ { max_ranges 0; alias " + d + "/www/; }\n"
           "    location = /broken { return 500; }\n"
           "    location = /loop { return 302 /loop; }\n"
           "    location = /moved { return 301 /data.bin; }\n"
           "  }\n"
           "}\n";
}

// ---- scripted answers ----

std::string answer(const std::string& statusLine, const std::vector<std::string>& headers, const std::string& body) {
    std::string text = "HTTP/1.1 " + statusLine + "\r\n";
    for (const auto& header : headers) text += header + "\r\n";
    return text + "Connection: close\r\n\r\n" + body;
}

std::string partial(const std::string& content, std::uint64_t first, std::uint64_t last,
                    const std::vector<std::string>& extra) {
    std::vector<std::string> headers = extra;
    headers.push_back("Content-Range: bytes " + std::to_string(first) + "-" + std::to_string(last) + "/" +
                      std::to_string(content.size()));
    headers.push_back("Content-Length: " + std::to_string(last + 1 - first));
    return answer("206 Partial Content", headers, content.substr(first, last + 1 - first));
}

namespace {

// The value of a request's header line, if it has one of that name (as sent).
std::optional<std::string> headerValue(const std::string& request, const std::string& name) {
    std::string prefix = "\r\n" + name + ": ";
    std::size_t start = request.find(prefix);
    if (start == std::string::npos) return std::nullopt;
    start += prefix.size();
    return request.substr(start, request.find("\r\n", start) - start);
}

}  // namespace

std::string rangedAnswer(const std::string& request, const std::string& content, const std::string& etag) {
    std::vector<std::string> headers{"ETag: " + etag};
    auto range = headerValue(request, "Range");
    auto ifRange = headerValue(request, "If-Range");
    if (!range || !range->starts_with("bytes=") || (ifRange && *ifRange != etag) || content.empty()) {
        headers.push_back("Content-Length: " + std::to_string(content.size()));
        return answer("200 OK", headers, content);
    }
    std::string span = range->substr(6);
    std::size_t dash = span.find('-');
    std::uint64_t last = content.size() - 1;
    std::uint64_t first = 0;
    if (dash == 0) {
        std::uint64_t tail = std::stoull(span.substr(1));
        first = content.size() - std::min<std::uint64_t>(tail, content.size());
    } else {
        first = std::stoull(span.substr(0, dash));
        if (dash + 1 < span.size()) last = std::min<std::uint64_t>(last, std::stoull(span.substr(dash + 1)));
    }
    return partial(content, first, last, headers);
}

ScriptedServer::ScriptedServer(std::vector<Reply> replies) {
    std::size_t count = replies.size();
    responder_ = [replies = std::move(replies)](const std::string&, std::size_t index) { return replies.at(index); };
    start(count);
}

ScriptedServer::ScriptedServer(Responder responder) : responder_(std::move(responder)) {
    start(std::numeric_limits<std::size_t>::max());
}

void ScriptedServer::start(std::size_t replyLimit) {
    listener_ = listeningSocket(port_);
    if (::pipe2(stop_, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    thread_ = std::thread([this, replyLimit] { serve(replyLimit); });
}

ScriptedServer::~ScriptedServer() {
    char byte = 0;
    (void)!::write(stop_[1], &byte, 1);
    thread_.join();
    ::close(listener_);
    ::close(stop_[0]);
    ::close(stop_[1]);
}

std::vector<std::string> ScriptedServer::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

bool ScriptedServer::waitFor(int fd) const {
    pollfd fds[2] = {{fd, POLLIN, 0}, {stop_[0], POLLIN, 0}};
    return ::poll(fds, 2, -1) > 0 && !(fds[1].revents & POLLIN);
}

std::string ScriptedServer::readRequest(int connection) const {
    std::string request;
    char buffer[4096];
    while (request.find("\r\n\r\n") == std::string::npos && waitFor(connection)) {
        auto got = ::read(connection, buffer, sizeof buffer);
        if (got <= 0) break;
        request.append(buffer, static_cast<std::size_t>(got));
    }
    return request;
}

void ScriptedServer::serve(std::size_t replyLimit) {
    for (std::size_t index = 0; index < replyLimit; ++index) {
        if (!waitFor(listener_)) return;
        int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) continue;
        std::string request = readRequest(connection);
        {
            std::lock_guard lock(mutex_);
            requests_.push_back(request);
        }
        Reply reply = responder_(request, index);
        (void)!::send(connection, reply.bytes.data(), reply.bytes.size(), MSG_NOSIGNAL);
        if (reply.stallAfter) waitFor(stop_[0]);
        ::close(connection);
    }
}

}  // namespace whittle::test
