#include "bench/load/entrant.h"

#include <array>

#include "bench/load/give_up.h"
#include "bench/load/log_in.h"

namespace Load {

bool Entrant::bStep() {
    if (bAdmitted) {
        connection.drain();
        return false;
    }
    if (!sLogIn.empty()) {
        // With TLS nothing is written before the handshake, which this call advances, is over.
        sLogIn.erase(0, connection.nWriteSome(sLogIn));
        if (!sLogIn.empty()) {
            return false;
        }
    }
    readAnswer();
    return bAdmitted;
}

void Entrant::readAnswer() {
    std::array<char, 1024> achBuffer;
    sAnswer.append(achBuffer.data(), connection.nReadSome(achBuffer.data(), achBuffer.size()));
    const Answer answer = judgeAnswer(sAnswer);
    if (answer == Answer::kRefused) {
        giveUp("client %u was refused", connection.nId);
    }
    bAdmitted = answer == Answer::kAdmitted;
}

}  // namespace Load
