#include "tests/unit/poster/scripted_endpoint.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "base/ip_utils.h"

namespace {

constexpr char kHost[] = "127.77.0.1";
constexpr std::size_t kMaxInput = 16 << 20;
constexpr int kBacklog = 20;
constexpr timeval kSendTimeOut{5, 0};

sockaddr_in siOwnAddress(int nPort) {
    sockaddr_in siAddress{};
    siAddress.sin_family = AF_INET;
    siAddress.sin_port = htons(static_cast<std::uint16_t>(nPort));
    (void)bParseIPv4(kHost, siAddress.sin_addr);  // it is an address
    return siAddress;
}

int nBoundSocket(int nPort) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int nOn = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof nOn);
    const sockaddr_in siAddress = siOwnAddress(nPort);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&siAddress), sizeof siAddress) == -1) {
        close(fd);
        return -1;
    }
    return fd;
}

int nPortOfSocket(int fd) {
    sockaddr_in siAddress{};
    socklen_t nLen = sizeof siAddress;
    getsockname(fd, reinterpret_cast<sockaddr*>(&siAddress), &nLen);
    return nPortOf(siAddress);
}

/// A closed connection is noticed when reading.
void sendAll(int fd, const std::string& sBytes) {
    std::size_t nSent = 0;
    while (nSent < sBytes.size()) {
        const ssize_t n = send(fd, sBytes.data() + nSent, sBytes.size() - nSent, MSG_NOSIGNAL);
        if (n <= 0) {
            return;
        }
        nSent += static_cast<std::size_t>(n);
    }
}

}  // namespace

HttpAnswer answerWith(int nStatus, const std::string& sBody, const std::string& sHeaders) {
    HttpAnswer answer;
    answer.sAtOnce = "HTTP/1.1 " + std::to_string(nStatus) + " As planned\r\n" + sHeaders;
    if (nStatus != 204) {
        answer.sAtOnce += "Content-Length: " + std::to_string(sBody.size()) + "\r\n";
    }
    answer.sAtOnce += "\r\n" + sBody;
    return answer;
}

HttpAnswer heldBack(const HttpAnswer& answer, std::size_t nAtOnce) {
    return {answer.sAtOnce.substr(0, nAtOnce), answer.sAtOnce.substr(nAtOnce), answer.then};
}

HttpAnswer noAnswer(HttpAnswer::Then then) {
    return {"", "", then};
}

ScriptedEndpoint::ScriptedEndpoint() {
    bindToFreePort();
    if (fdListener_ == -1 || pipe2(fdsWake_, O_CLOEXEC | O_NONBLOCK) == -1) {
        std::abort();  // no test can continue without its endpoint
    }
    thread_ = std::thread([this] { serve(); });
    comeBack();
}

ScriptedEndpoint::~ScriptedEndpoint() {
    onThread([this] {
        leave();
        bEnd_ = true;
    });
    thread_.join();
    close(fdListener_);
    close(fdsWake_[0]);
    close(fdsWake_[1]);
}

/// A port that is bound by number stays reserved while nothing listens, and refuses connections.
void ScriptedEndpoint::bindToFreePort() {
    for (int i = 0; i < 20 && fdListener_ == -1; ++i) {
        const int fdAny = nBoundSocket(0);
        nPort_ = nPortOfSocket(fdAny);
        close(fdAny);
        fdListener_ = nBoundSocket(nPort_);
    }
    if (fdListener_ != -1) {
        fcntl(fdListener_, F_SETFL, O_NONBLOCK);
    }
}

void ScriptedEndpoint::plan(const HttpAnswer& answer, int nTimes) {
    const std::lock_guard lock(mutex_);
    plan_.insert(plan_.end(), static_cast<std::size_t>(nTimes), answer);
}

void ScriptedEndpoint::answerBy(responder_t responder) {
    const std::lock_guard lock(mutex_);
    responder_ = std::move(responder);
}

void ScriptedEndpoint::release() {
    onThread([this] {
        for (Connection& rConnection : connections_) {
            if (rConnection.bHolds) {
                rConnection.bHolds = false;
                sendAll(rConnection.fd, rConnection.held.sOnRelease);
                finish(rConnection, rConnection.held.then);
            }
        }
    });
}

void ScriptedEndpoint::goAway() {
    onThread([this] { leave(); });
}

void ScriptedEndpoint::comeBack() {
    onThread([this] { bListening_ = listen(fdListener_, kBacklog) == 0; });
}

std::string ScriptedEndpoint::sHost() const {
    return kHost;
}

std::string ScriptedEndpoint::sURL(const std::string& sPath) const {
    return "http://" + sHost() + ':' + std::to_string(nPort_) + sPath;
}

std::size_t ScriptedEndpoint::nRequests() {
    const std::lock_guard lock(mutex_);
    return requests_.size();
}

std::vector<HttpRequest> ScriptedEndpoint::requests() {
    const std::lock_guard lock(mutex_);
    return requests_;
}

std::vector<std::string> ScriptedEndpoint::bodies() {
    std::vector<std::string> bodies;
    for (const HttpRequest& request : requests()) {
        bodies.push_back(request.sBody);
    }
    return bodies;
}

/// Has the endpoint's thread run `task` and waits for that.
void ScriptedEndpoint::onThread(const std::function<void()>& task) {
    std::unique_lock lock(mutex_);
    tasks_.push_back(&task);
    const std::size_t nOwn = ++nTasksAsked_;
    wakeUp();
    taskDone_.wait(lock, [&] { return nTasksDone_ >= nOwn; });
}

void ScriptedEndpoint::wakeUp() const {
    (void)!write(fdsWake_[1], "", 1);  // a full pipe wakes as well
}

void ScriptedEndpoint::serve() {
    while (!bEnd_) {
        waitForEvents();
        runTasks();
    }
}

void ScriptedEndpoint::waitForEvents() {
    std::vector<pollfd> waiting{{fdsWake_[0], POLLIN, 0},
                                {bListening_ ? fdListener_ : -1, POLLIN, 0}};
    for (const Connection& connection : connections_) {
        waiting.push_back({connection.fd, POLLIN, 0});
    }
    poll(waiting.data(), waiting.size(), -1);
    auto itWaiting = waiting.begin() + 2;
    for (Connection& rConnection : connections_) {
        if (itWaiting++->revents != 0 && rConnection.fd != -1) {
            read(rConnection);
        }
    }
    if (waiting[1].revents != 0 && bListening_) {
        accept();
    }
    connections_.remove_if([](const Connection& connection) { return connection.fd == -1; });
}

void ScriptedEndpoint::runTasks() {
    char achWakeUps[64];
    (void)!::read(fdsWake_[0], achWakeUps, sizeof achWakeUps);  // only empties the pipe
    std::unique_lock lock(mutex_);
    while (!tasks_.empty()) {
        const auto* const pTask = tasks_.front();
        tasks_.pop_front();
        lock.unlock();
        (*pTask)();
        lock.lock();
        ++nTasksDone_;
        taskDone_.notify_all();
    }
}

void ScriptedEndpoint::accept() {
    const int fd = accept4(fdListener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd == -1) {
        return;
    }
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kSendTimeOut, sizeof kSendTimeOut);
    Connection& rConnection = connections_.emplace_back();
    rConnection.fd = fd;
    rConnection.nNumber = ++nConnections_;
}

void ScriptedEndpoint::read(Connection& rConnection) {
    char achBytes[65536];
    const ssize_t n = recv(rConnection.fd, achBytes, sizeof achBytes, MSG_DONTWAIT);
    if (n == -1 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (n <= 0 || rConnection.sInput.size() > kMaxInput) {
        shut(rConnection, false);
        return;
    }
    rConnection.sInput.append(achBytes, static_cast<std::size_t>(n));
    handleInput(rConnection);
}

/// Takes the first request from the input, once it is complete.
void ScriptedEndpoint::handleInput(Connection& rConnection) {
    const std::size_t nHead = nHeadLength(rConnection.sInput);
    if (nHead == 0 || rConnection.bHolds) {
        return;
    }
    const HttpRequest request = parsedHead(rConnection.sInput.substr(0, nHead));
    const std::size_t nBody = nContentLength(request);
    if (rConnection.sInput.size() - nHead >= nBody) {
        takeRequest(rConnection, nHead, nBody);
    } else if (request.nHeaders("Expect") > 0 && !rConnection.bToldToContinue) {
        rConnection.bToldToContinue = true;
        sendAll(rConnection.fd, "HTTP/1.1 100 Continue\r\n\r\n");
    }
}

void ScriptedEndpoint::takeRequest(Connection& rConnection, std::size_t nHead, std::size_t nBody) {
    HttpRequest request = parsedHead(rConnection.sInput.substr(0, nHead));
    request.sBody = rConnection.sInput.substr(nHead, nBody);
    request.nConnection = rConnection.nNumber;
    rConnection.sInput.erase(0, nHead + nBody);
    rConnection.bToldToContinue = false;
    const HttpAnswer answer = nextAnswer(request);
    {
        // Before the answer, so that a test that has received it finds the request.
        const std::lock_guard lock(mutex_);
        requests_.push_back(std::move(request));
    }
    sendAll(rConnection.fd, answer.sAtOnce);
    if (answer.sOnRelease.empty()) {
        finish(rConnection, answer.then);
    } else {
        rConnection.bHolds = true;
        rConnection.held = answer;
    }
}

HttpAnswer ScriptedEndpoint::nextAnswer(const HttpRequest& request) {
    const std::lock_guard lock(mutex_);
    if (!plan_.empty()) {
        HttpAnswer answer = std::move(plan_.front());
        plan_.pop_front();
        return answer;
    }
    return responder_ ? responder_(request) : answerWith(200);
}

void ScriptedEndpoint::finish(Connection& rConnection, HttpAnswer::Then then) {
    switch (then) {
        case HttpAnswer::Then::kKeepOpen:
            break;
        case HttpAnswer::Then::kClose:
            shut(rConnection, false);
            break;
        case HttpAnswer::Then::kReset:
            shut(rConnection, true);
            break;
        case HttpAnswer::Then::kGoAway:
            leave();
            break;
    }
}

void ScriptedEndpoint::leave() {
    shutdown(fdListener_, SHUT_RDWR);
    bListening_ = false;
    for (Connection& rConnection : connections_) {
        shut(rConnection, false);
    }
}

void ScriptedEndpoint::shut(Connection& rConnection, bool bReset) {
    if (rConnection.fd == -1) {
        return;
    }
    const linger none{1, 0};
    if (bReset) {
        setsockopt(rConnection.fd, SOL_SOCKET, SO_LINGER, &none, sizeof none);
    }
    close(rConnection.fd);
    rConnection.fd = -1;
    rConnection.bHolds = false;
}
