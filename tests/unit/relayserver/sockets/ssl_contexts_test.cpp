#include "relayserver/sockets/ssl_contexts.h"

#include <openssl/err.h>

#include <type_traits>

#include "relayserver/settings/settings.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/admission/tls_peer.h"
#include "tests/unit/relayserver/engine_fixture.h"
#include "tests/unit/relayserver/temp_folder.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

class SslContexts : public EngineTest {
  protected:
    SslContexts() {
        ERR_clear_error();
        InitializeSSL();
    }
    TempFolder _folder;
};

TEST_F(SslContexts, AWrapIsEmptyUntilItIsSet) {
    SslCtxWrap context;
    EXPECT_EQ(nullptr, context.get());
    EXPECT_TRUE(context.set_new(TLS_method()));
    EXPECT_NE(nullptr, context.get());
}

TEST_F(SslContexts, AWrapIsTheOnlyOwner) {
    EXPECT_FALSE(std::is_copy_constructible_v<SslCtxWrap>);
}

TEST_F(SslContexts, SettingAgainReplacesTheContext) {
    SslCtxWrap context;
    ASSERT_TRUE(context.set_new(TLS_method()));
    SSL_CTX* const pFirst = context.get();
    SSL_CTX_up_ref(pFirst);
    ASSERT_TRUE(context.set_new(TLS_method()));
    EXPECT_NE(pFirst, context.get());
    SSL_CTX_free(pFirst);
}

TEST_F(SslContexts, InitializingMakesBoth) {
    EXPECT_NE(nullptr, sslctx_server.get());
    EXPECT_NE(nullptr, sslctx_client.get());
    EXPECT_NE(sslctx_server.get(), sslctx_client.get());
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(SslContexts, IdleSessionsHoldNoBuffers) {
    EXPECT_NE(0, SSL_CTX_get_mode(sslctx_server.get()) & SSL_MODE_RELEASE_BUFFERS);
    EXPECT_NE(0, SSL_CTX_get_mode(sslctx_client.get()) & SSL_MODE_RELEASE_BUFFERS);
}

TEST_F(SslContexts, TheClientContextIsMadeOnlyWhenItIsMissing) {
    SSL_CTX* const pClient = sslctx_client.get();
    ensureClientContext();
    EXPECT_EQ(pClient, sslctx_client.get());
    ASSERT_FALSE(sslctx_client.set_new(nullptr));
    ensureClientContext();
    EXPECT_NE(nullptr, sslctx_client.get());
}

TEST_F(SslContexts, CertificateAndKeyAreLoaded) {
    sCrtFile = _folder.sFile("relay.pem");
    sKeyFile = _folder.sFile("relay.key");
    writeCertificate(sCrtFile, sKeyFile);
    EXPECT_TRUE(bLoadServerCertificate());
    EXPECT_EQ(1, SSL_CTX_check_private_key(sslctx_server.get()));
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(SslContexts, AMissingCertificateIsLogged) {
    sCrtFile = _folder.sFile("relay.pem");
    EXPECT_FALSE(bLoadServerCertificate());
    ASSERT_EQ(1U, loggedLines().size());
    EXPECT_THAT(loggedLines().front(), StartsWith("SSL certificate load error: error:"));
    EXPECT_EQ('\n', loggedLines().front().back());
}

TEST_F(SslContexts, AKeyOfAnotherCertificateIsLogged) {
    sCrtFile = _folder.sFile("relay.pem");
    sKeyFile = _folder.sFile("other.key");
    writeCertificate(_folder.sFile("other.pem"), sKeyFile);
    writeCertificate(sCrtFile, _folder.sFile("relay.key"));
    EXPECT_FALSE(bLoadServerCertificate());
    EXPECT_THAT(loggedLines(),
                ElementsAre("SSL private key load error: error:05800074:x509 certificate "
                            "routines::key values mismatch\n"));
}

TEST_F(SslContexts, AMissingKeyIsLogged) {
    sCrtFile = _folder.sFile("relay.pem");
    sKeyFile = _folder.sFile("nowhere.key");
    writeCertificate(sCrtFile, _folder.sFile("relay.key"));
    EXPECT_FALSE(bLoadServerCertificate());
    ASSERT_EQ(1U, loggedLines().size());
    EXPECT_THAT(loggedLines().front(), StartsWith("SSL private key load error: error:"));
}

TEST_F(SslContexts, TheErrorCallbackLogsItsTextAsItIs) {
    EXPECT_EQ(1, sslErrorCallback("50%s off\n", 9, nullptr));
    EXPECT_THAT(loggedLines(), ElementsAre("50%s off\n"));
}

TEST_F(SslContexts, TheErrorCallbackTakesTheWholeQueue) {
    ERR_raise(ERR_LIB_USER, 1);
    ERR_raise(ERR_LIB_USER, 2);
    ERR_print_errors_cb(sslErrorCallback, nullptr);
    EXPECT_EQ(2U, loggedLines().size());
}

}  // namespace
