/// An HTTP server on the loopback network that answers as a test has planned, and records requests.
/// A thread serves all its connections; the functions are called by other threads.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/poster/http_text.h"

/// What happens after a request.
struct HttpAnswer {
    enum class Then {
        kKeepOpen,
        kClose,
        kReset,
        /// Close every connection and refuse new ones, until `comeBack`.
        kGoAway
    };
    std::string sAtOnce;
    /// Sent after `release`, before `then`.
    std::string sOnRelease;
    Then then = Then::kKeepOpen;
};

/// An answer with a status, a body and further header lines, each of which ends with CR LF.
HttpAnswer answerWith(int nStatus, const std::string& sBody = "", const std::string& sHeaders = "");

/// The same answer, of which all but the first `nAtOnce` bytes wait for `release`. Without
/// `release` the request is never answered.
HttpAnswer heldBack(const HttpAnswer& answer, std::size_t nAtOnce = 0);

/// No answer at all.
HttpAnswer noAnswer(HttpAnswer::Then then);

class ScriptedEndpoint {
  public:
    using responder_t = std::function<HttpAnswer(const HttpRequest&)>;

    ScriptedEndpoint();
    ~ScriptedEndpoint();
    ScriptedEndpoint(const ScriptedEndpoint&) = delete;
    ScriptedEndpoint& operator=(const ScriptedEndpoint&) = delete;

    /// Answers the next `nTimes` requests like this, after those already planned. Requests beyond
    /// the plan are answered with an empty 200.
    void plan(const HttpAnswer& answer, int nTimes = 1);
    /// Has `responder` answer everything that is not planned; it runs on the endpoint's thread.
    void answerBy(responder_t responder);
    /// Sends what is held back now.
    void release();
    /// Closes all connections and refuses new ones, before this returns.
    void goAway();
    /// Accepts connections again, at the same address.
    void comeBack();

    [[nodiscard]] std::string sHost() const;
    [[nodiscard]] int nPort() const { return nPort_; }
    /// "http://host:port/path"
    [[nodiscard]] std::string sURL(const std::string& sPath = "/archive") const;

    [[nodiscard]] std::size_t nRequests();
    [[nodiscard]] std::vector<HttpRequest> requests();
    /// The bodies of all requests in the order received.
    [[nodiscard]] std::vector<std::string> bodies();

  private:
    struct Connection {
        int fd = -1;
        int nNumber = 0;
        std::string sInput;
        bool bToldToContinue = false;
        bool bHolds = false;
        HttpAnswer held;
    };

    void bindToFreePort();
    void serve();
    void waitForEvents();
    void runTasks();
    void onThread(const std::function<void()>& task);
    void wakeUp() const;
    void accept();
    void read(Connection& rConnection);
    void handleInput(Connection& rConnection);
    void takeRequest(Connection& rConnection, std::size_t nHead, std::size_t nBody);
    void finish(Connection& rConnection, HttpAnswer::Then then);
    void leave();
    [[nodiscard]] HttpAnswer nextAnswer(const HttpRequest& request);
    static void shut(Connection& rConnection, bool bReset);

    int fdListener_ = -1;
    int fdsWake_[2] = {-1, -1};
    int nPort_ = 0;

    std::mutex mutex_;
    /// Guarded by `mutex_`.
    std::vector<HttpRequest> requests_;
    std::deque<HttpAnswer> plan_;
    responder_t responder_;
    std::deque<const std::function<void()>*> tasks_;
    std::size_t nTasksDone_ = 0;
    std::size_t nTasksAsked_ = 0;
    std::condition_variable taskDone_;

    /// Used by the endpoint's thread.
    std::list<Connection> connections_;
    int nConnections_ = 0;
    bool bListening_ = false;
    bool bEnd_ = false;

    std::thread thread_;
};
