// Publication of PKCS#12 bundles, one or many.
#ifndef QORLDAP_TOOLS_PUBLISH_H
#define QORLDAP_TOOLS_PUBLISH_H

#include <string>
#include <utility>
#include <vector>

#include "cli.h"

namespace qortool {

// What every bundle of a run is published with.
struct PublishSetup {
    bool crypt = false;
    bool publicOnly = false;
    std::string bundlePassword;
    std::string keyPassword;
    // ldap.ini's levels (class, naming attribute), from the top down, read once per run.
    std::vector<std::pair<std::string, std::string>> levels;
};

// Publishes bundle, the contents of path, through the library's free functions; a failure
// throws Stop with the reason, as Fail does. Safe to run in several threads at once. The DN
// the subject names, as the library composes it; empty when the subject could not be read.
std::string PublishBundle(PublishSetup const& setup, std::string const& path,
                          std::string const& bundle);
// "signing pair", "encryption certificate only".
std::string PublishedWhat(PublishSetup const& setup);

// Whether the command line asks for more than the one bundle of the plain form.
bool ManyBundles(Args const& args);
// The bundles the command line names: files as given, the *.p12 and *.pfx files of a folder,
// the paths listed on standard input for "-" or --from-stdin.
std::vector<std::string> BundlePaths(Args const& args);
// Publishes each of paths with --jobs threads, goes on past failures, shows progress, prints a
// summary and writes --report. 1 when any failed.
int PublishMany(Args const& args, PublishSetup const& setup, std::vector<std::string> const& paths);

}  // namespace qortool

#endif
