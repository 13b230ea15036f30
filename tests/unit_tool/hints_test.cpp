// The one table from result codes to what the tool says about them, and how a code is printed.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "qorldap/result_codes.h"
#include "tools/cli.h"
#include "tools/session/hints.h"

namespace {

using qortool::Hint;
using qortool::HintWords;
using qortool::Situation;

Situation const kEvery[] = {
    Situation::kConnect,          Situation::kConnectNoSettings, Situation::kConnectBadLink,
    Situation::kConnectRefused,   Situation::kConnectTls,        Situation::kStartTls,
    Situation::kTemplatesMissing, Situation::kTemplatesUnread,   Situation::kReadKey,
    Situation::kReadKeyTemplates, Situation::kWriteKey,          Situation::kPublish,
    Situation::kPublishNoCause,   Situation::kReadEntry,         Situation::kList,
    Situation::kAddEntry,         Situation::kAddRefused,        Situation::kChangeEntry,
    Situation::kFindUser,         Situation::kFindUserFast,      Situation::kPasswdName,
    Situation::kPasswdNoCryptKey, Situation::kPasswdCryptOnly,   Situation::kPasswdCryptNoSign,
    Situation::kPasswdUnchanged,
};
int const kCodes[] = {QORLDAP_E_FAILED,
                      QORLDAP_E_ROOT,
                      QORLDAP_E_OLD_PASSWORD,
                      QORLDAP_E_KEY_CONVERT,
                      QORLDAP_E_PKCS12,
                      QORLDAP_E_KEY_SEARCH,
                      32,
                      49,
                      50,
                      65,
                      66,
                      68,
                      -1,
                      -5,
                      -11};

HintWords Words(std::string const& dn) {
    HintWords words;
    words.dn = dn;
    words.parent = "ou=x,o=root";
    words.where = " at h port 1";
    words.soap = "/c/soap.ini";
    words.who = "managerdn and psw";
    words.cause = "insufficient access (50)";
    words.name = "cn=li lei";
    return words;
}

TEST(ToolHints, OnlyTheCodesOfAnUnreachableServerAreBlamedOnThePortOrOnTls) {
    using qortool::HasHint;
    // -1 and -11 may mean that nothing listens (the tool then looks), or a TLS handshake that
    // failed; a bind refused (49) on a TLS link is not a TLS fault, and a silent server (-5)
    // answered the connection.
    for (int code : kCodes) {
        bool const maybeRefused = code == -1 || code == -11;
        EXPECT_EQ(maybeRefused, HasHint(code, Situation::kConnectRefused)) << code;
        EXPECT_EQ(maybeRefused, HasHint(code, Situation::kConnectTls)) << code;
        EXPECT_TRUE(HasHint(code, Situation::kStartTls)) << code;
        EXPECT_EQ(code == -1 || code == -5 || code == -11, qortool::Unreachable(code)) << code;
    }
    HintWords w = Words("");
    w.hosts = "127.0.0.1:1, [::1]:2";
    EXPECT_EQ(
        "cannot connect to the directory: nothing answers at 127.0.0.1:1, [::1]:2 (the connection "
        "is refused; check host and port in /c/soap.ini)",
        Hint(-11, Situation::kConnectRefused, w));
    EXPECT_EQ(
        "cannot set up TLS with the directory at h port 1 (check tls_cacert and that the "
        "server's certificate names the host as written in /c/soap.ini)",
        Hint(52, Situation::kStartTls, w));
}

TEST(ToolHints, EverySituationHasARowAndEveryRowFillsItsWords) {
    HintWords all;
    for (std::string* word : {&all.dn, &all.parent, &all.name, &all.where, &all.hosts, &all.soap,
                              &all.who, &all.fault, &all.cause, &all.path})
        *word = "W";
    for (Situation situation : kEvery) {
        int rows = 0;
        for (int code : kCodes) {
            std::string const hint = Hint(code, situation, all);
            EXPECT_EQ(std::string::npos, hint.find_first_of("{}")) << hint;
            rows += hint.empty() ? 0 : 1;
        }
        EXPECT_GT(rows, 0) << "situation " << static_cast<int>(situation);
    }
}

std::string Failure(int code, std::string const& meaning) {
    try {
        qortool::FailCode("put-cert", code, meaning);
    } catch (qortool::Stop const& stop) {
        return std::to_string(stop.status) + " " + stop.message;
    }
    return "no failure";
}

TEST(ToolCodes, TheLibrarysCodesInHexTheDirectorysInDecimal) {
    using qortool::CodeText;
    EXPECT_EQ("0x16000010", CodeText(QORLDAP_E_FAILED));
    EXPECT_EQ("0x16000015", CodeText(QORLDAP_E_KEY_SEARCH));
    EXPECT_EQ("32", CodeText(32));
    EXPECT_EQ("-11", CodeText(-11));
    // Nothing was asked of the directory in this thread: the line is the code and its meaning.
    EXPECT_EQ("1 put-cert: 0x16000013 the private key cannot be converted into its protected form",
              Failure(QORLDAP_E_KEY_CONVERT, ""));
    EXPECT_EQ("1 put-cert: 65 " + Hint(65, Situation::kWriteKey, Words("cn=x")),
              Failure(65, Hint(65, Situation::kWriteKey, Words("cn=x"))));
}

}  // namespace
