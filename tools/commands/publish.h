// Publication of PKCS#12 bundles, one or many.
#ifndef QORLDAP_TOOLS_COMMANDS_PUBLISH_H
#define QORLDAP_TOOLS_COMMANDS_PUBLISH_H

#include <string>
#include <vector>

#include "tools/cli.h"

namespace qortool {

// What every bundle of a run is published with.
struct PublishSetup {
    bool crypt = false;
    bool publicOnly = false;
    std::string bundlePassword;
    std::string keyPassword;
};

// Publishes bundle, the contents of path, through the library's free functions; a failure
// throws Stop with the reason, as Fail does. Safe to run in several threads at once. The DN
// the subject names, as the library composes it; empty when the subject could not be read.
std::string PublishBundle(PublishSetup const& setup, std::string const& path,
                          std::string const& bundle);
// "signing pair", "encryption certificate only".
std::string PublishedWhat(PublishSetup const& setup);

// One bundle of a run: a path, and why it fails already when that was found while listing.
struct BundleFile {
    std::string path;
    std::string refusal;  // "bundles: unreadable (Permission denied)"; empty when none
};

// Whether the command line asks for more than the one bundle of the plain form.
bool ManyBundles(Args const& args);
// The bundles the command line names: files as given, the *.p12 and *.pfx files of a folder
// (whatever their type: each is looked at when it is read), the paths listed on standard
// input for "-" or --from-stdin. A folder that cannot be listed is one failed entry.
std::vector<BundleFile> BundlePaths(Args const& args);
// With --jobs N above 1, gives the library pool_size = N (unless its settings give as many or
// more already, or a value it refuses), so that the workers' directory requests run at once,
// each on a connection of its own. Called before the first call into the library.
void PoolForJobs(Args const& args);
// Publishes each of bundles with --jobs threads, goes on past failures, shows progress, prints
// a summary and writes --report. 1 when any failed.
int PublishMany(Args const& args, PublishSetup const& setup,
                std::vector<BundleFile> const& bundles);

}  // namespace qortool

#endif
