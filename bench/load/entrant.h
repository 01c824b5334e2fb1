/// A client on its way in: connected, about to present its ticket and waiting for the answer.
#pragma once

#include <string>

#include "bench/load/connection.h"

namespace Load {

class Entrant {
  public:
    /// A connection that has just begun, with its TLS handshake still to come if it has one, and
    /// the frame that logs it in.
    Entrant(Connection&& begunConnection, std::string sLogInFrame)
        : connection(std::move(begunConnection)), sLogIn(std::move(sLogInFrame)) {}

    /// Goes on as far as it can without waiting. Returns true at the step that finds the client
    /// admitted. Ends the program when it is refused.
    bool bStep();
    [[nodiscard]] int getFileDesc() const { return connection.getFileDesc(); }

  private:
    void readAnswer();

    Connection connection;
    std::string sLogIn;  ///< empty once it is sent
    std::string sAnswer;
    bool bAdmitted = false;
};

}  // namespace Load
