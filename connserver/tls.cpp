#include "connserver/tls.h"

const SSL_METHOD* chooseSslMethod() {
    return TLS_method();
}
