/// A client being admitted: it connects, presents its ticket and waits for the answer.
#pragma once

#include <string>

#include "bench/load/connection.h"

namespace Load {

class Entrant {
  public:
    /// Takes a connection that has just begun, before its TLS handshake if there is one, and the
    /// frame that logs it in.
    Entrant(Connection&& begunConnection, std::string sLogInFrame)
        : connection(std::move(begunConnection)), sLogIn(std::move(sLogInFrame)) {}

    /// Proceeds as far as it can without waiting. Returns true at the step that finds the client
    /// admitted. Ends the program if it is refused.
    bool bStep();
    [[nodiscard]] int getFileDesc() const { return connection.getFileDesc(); }

  private:
    void readAnswer();

    Connection connection;
    std::string sLogIn;  ///< empty once it has been sent
    std::string sAnswer;
    bool bAdmitted = false;
};

}  // namespace Load
