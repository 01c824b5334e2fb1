#include "connserver/tls.h"

#include <gtest/gtest.h>

namespace {

TEST(Tls, LetsBothSidesAgreeOnTheVersion) {
    EXPECT_EQ(TLS_method(), chooseSslMethod());
}

TEST(Tls, ServesServersAndClients) {
    SSL_CTX* const pContext = SSL_CTX_new(chooseSslMethod());
    ASSERT_NE(nullptr, pContext);
    EXPECT_EQ(0, SSL_CTX_get_max_proto_version(pContext));  // No version is excluded.
    SSL_CTX_free(pContext);
}

}  // namespace
