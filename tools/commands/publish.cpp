// The publish command: a PKCS#12 bundle's certificate and key stored under its subject.
#include <cstdio>
#include <memory>

#include "tools/commands/publish.h"

#include "qorldap/LastResult.h"
#include "qorldap/qorldap.h"
#include "tools/checks/checks.h"
#include "tools/commands/commands.h"
#include "tools/output/output.h"
#include "tools/session/hints.h"
#include "tools/session/session.h"

namespace qortool {

namespace {

int LastDirectoryCode() {
    QorLdapResult last = {};
    QorLdapLastResult(&last);
    return last.code;
}

int RunPublish(Args const& args) {
    if (args.positional.empty() && !args.Has("--from-stdin"))
        Usage(args.command, "missing argument");
    bool const many = ManyBundles(args);
    std::vector<BundleFile> const bundles =
        many ? BundlePaths(args) : std::vector<BundleFile>{{args.positional[0], ""}};
    std::string const& path = bundles[0].path;
    std::string const bundle = many ? "" : ReadRegularFile(args.command, path, kMaxInput);
    PoolForJobs(args);
    ConnectShared();

    PublishSetup setup;
    setup.crypt = args.Has("--crypt");
    setup.publicOnly = args.Has("--public-only");
    std::string const prompt = many ? "Password of the bundles: " : "Password of " + path + ": ";
    setup.bundlePassword =
        GetPassword(args, {"--p12-pass-file", "QORLDAP_P12_PASSWORD", prompt, false, true});
    if (!setup.publicOnly) {
        setup.keyPassword =
            GetPassword(args, {"--key-pass-file", "QORLDAP_KEY_PASSWORD",
                               "New password for the stored private key: ", true, false});
    }
    if (many)
        return PublishMany(args, setup, bundles);
    std::string const dn = PublishBundle(setup, path, bundle);
    std::printf("published %s (%s)%s\n", path.c_str(), PublishedWhat(setup).c_str(),
                dn.empty() ? "" : (" to " + dn).c_str());
    return kExitOk;
}

char const kPublishHelp[] =
    "usage: qorldap publish BUNDLE.p12 [--crypt] [--public-only] [--allow-weak-key]\n"
    "                       [--p12-pass-file FILE] [--key-pass-file FILE]\n"
    "       qorldap publish FILE|FOLDER|- ... [--from-stdin] [--jobs N] [--report FILE]\n"
    "                       [the options above]\n"
    "\n"
    "Stores the certificate and private key of a PKCS#12 bundle in the directory. The\n"
    "entry comes from the certificate's subject and the templates of ldap.ini: a subject\n"
    "C=CN,O=Acme,OU=Sales,CN=Li Lei lands at \"cn=li lei, ou=sales, <basedn>\". Missing\n"
    "levels are created. The private key is stored encrypted under the key password.\n"
    "A subject value that cannot be part of a DN unescaped (one holding , + \" \\ < > ; =\n"
    "or two blanks in a row, starting with # or a blank, or ending with a blank), and a\n"
    "subject holding a control character (a line feed, a tab, ...) in any attribute, are\n"
    "refused before anything is written, naming the attribute and the character.\n"
    "\n"
    "  --crypt              store it as the encryption pair (default: the signing pair)\n"
    "  --public-only        store the certificate only; no key password is needed\n"
    "  --allow-weak-key     also publish a key below 112-bit security (RSA or DSA under\n"
    "                       2048 bits, a curve under 224 bits) or on a curve given by\n"
    "                       explicit parameters; without it such a bundle is refused,\n"
    "                       naming the key (\"RSA 1024 bits\"), before anything is written\n"
    "  --p12-pass-file FILE read the bundle's password from the first line of FILE\n"
    "  --key-pass-file FILE read the key password from the first line of FILE\n"
    "\n"
    "Many bundles: several files, a FOLDER (its *.p12 and *.pfx files), or - to read one\n"
    "path a line from standard input. All take the same passwords. A failing bundle is\n"
    "reported on standard error and the others go on; at the end a summary \"N published,\n"
    "M failed in T s\", and exit status 1 when any failed. Progress shows on standard\n"
    "error: a bar on a terminal, else a line each tenth of the way. A path that is not a\n"
    "regular file (a FIFO, a device, a folder named *.p12), a symlink loop and an\n"
    "unreadable file or folder each fail with a line of their own; none is waited on.\n"
    "Ctrl-C lets the bundles in flight finish and starts no other; the summary then counts\n"
    "those not attempted, the report lists them, and the exit status is 130. A second\n"
    "Ctrl-C ends the program at once.\n"
    "\n"
    "  --from-stdin         read the paths from standard input, as - does\n"
    "  -j, --jobs N         N bundles at a time (default 1, at most 64), each worker on a\n"
    "                       connection of its own (the library's pool_size is raised to N)\n"
    "  --report FILE        write each failed bundle with its reason to FILE\n"
    "\n"
    "Passwords never go on the command line. Without a file option they come from\n"
    "QORLDAP_P12_PASSWORD and QORLDAP_KEY_PASSWORD, else from a prompt on the terminal.\n"
    "Give a user's two pairs the same key password: passwd changes both together.\n";

}  // namespace

std::string PublishedWhat(PublishSetup const& setup) {
    return std::string(setup.crypt ? "encryption" : "signing") +
           (setup.publicOnly ? " certificate only" : " pair");
}

std::string PublishBundle(PublishSetup const& setup, std::string const& path,
                          std::string const& bundle) {
    auto publish = [&] {
        return PublishP12(bundle.data(), bundle.size(), setup.bundlePassword.c_str(),
                          setup.publicOnly ? nullptr : setup.keyPassword.c_str(), !setup.crypt,
                          setup.publicOnly);
    };
    int rc = publish();
    // Another bundle of the run may have made the same level a moment before.
    if (rc == QORLDAP_E_FAILED && LastDirectoryCode() == kAlreadyExists)
        rc = publish();
    if (rc == QORLDAP_E_FAILED) {
        // When the directory refused a level, its own answer says why (a class that needs more
        // than the naming attribute: "object class 'inetOrgPerson' requires attribute 'sn'").
        std::string hint = MissingTemplatesHint();
        if (hint.empty() && DirectoryCause().empty())
            hint = Hint(rc, Situation::kPublishNoCause);
        FailCode("publish", rc,
                 Hint(rc, Situation::kPublish) + (hint.empty() ? "" : " (" + hint + ")"));
    }
    // The entry the library composed from the subject, as it wrote it; or why it refused the
    // bundle (a subject it would misread, a weak key, a wrong password), in its own words.
    QorLdapOutcome outcome = {};
    QorLdapLastOutcome(&outcome);
    std::string const dn = outcome.dn;
    if (outcome.refusal != QORLDAP_REFUSED_NONE) {
        std::string const reason = outcome.refusal == QORLDAP_REFUSED_WEAK_KEY
                                       ? std::string("the bundle's key is ") + outcome.reason +
                                             "; --allow-weak-key publishes it all the same"
                                       : outcome.reason;
        Fail("publish",
             path + ": " + CodeText(rc) + " " + reason +
                 (dn.empty() ? "; nothing was written" : "; no key was written to " + dn));
    }
    if (rc != QORLDAP_OK) {
        HintWords words;
        words.dn = dn.empty() ? "the entry the subject names" : dn;
        FailCode("publish", rc, Hint(rc, Situation::kPublish, words));
    }
    return dn;
}

Command PublishCommand() {
    return {"publish",
            "store PKCS#12 bundles' certificates and keys under their subjects",
            kPublishHelp,
            {{"--crypt", nullptr, false},
             {"--public-only", nullptr, false},
             {"--allow-weak-key", nullptr, false},
             {"--p12-pass-file", nullptr, true},
             {"--key-pass-file", nullptr, true},
             {"--from-stdin", nullptr, false},
             {"--jobs", "-j", true},
             {"--report", nullptr, true}},
            0,
            1000000,
            RunPublish};
}

}  // namespace qortool
