// velmar-authorize <name>: signs an account of the profiles in once, by the device flow or in the browser,
// and keeps its refresh token for the service (what "VelmarTaskScheduler --authorize <name>" runs). The name
// is an IMAP store's display name, or "SMTP" for a profile's SMTP account of its own; the default profile is
// looked at first.
#include <strings.h>
#include <sys/prctl.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "mapi/oauth/BrowserAuthorization.h"
#include "mapi/oauth/DeviceAuthorization.h"
#include "mapi/oauth/Endpoints.h"
#include "mapi/provider/Profiles.h"
#include "mapi/spool/SmtpSettings.h"

namespace {

using namespace velmar::mapi;

std::optional<COAuth2Account> AccountNamed(const std::string& name, std::string& problem) {
    std::vector<CProfile> profiles = LoadProfiles();
    std::stable_partition(profiles.begin(), profiles.end(), [](const CProfile& p) { return p.isDefault; });
    for (const CProfile& profile : profiles) {
        for (const CStoreConfig& store : profile.stores)
            if (store.imap && store.imap->oauth2.enabled && store.imap->oauth2.signInName == name)
                return store.imap->oauth2;
        const CSmtpSettings smtp = SmtpSettingsOf(profile);
        if (strcasecmp(name.c_str(), kSmtpSignInName) == 0 && smtp.oauth2.enabled && !smtp.oauth2Store)
            return SmtpOAuth2Account(profile, smtp, problem);
    }
    problem = "Kein Konto \"" + name + "\" mit auth = oauth2 in " + ProfilesFilePath();
    return std::nullopt;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "Aufruf: %s <Name des Postfachs | SMTP>\n", argv[0]);
        return 2;
    }
    // It holds a refresh token for a while: no core file, no other process of the user's in its memory.
    prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
    std::string error;
    const std::optional<COAuth2Account> account = AccountNamed(argv[1], error);
    if (account && !account->tokenEval.empty())
        error = account->signInName + " holt seine Tokens mit oauth2.tokeneval: keine Anmeldung nötig";
    const auto say = [](const std::string& line) {
        std::printf("%s\n", line.c_str());
        std::fflush(stdout);
    };
    // Google's device flow does not cover mail: its accounts sign in in the browser, as do those of a server
    // without a device endpoint.
    const auto authorize = [&] {
        if (account->provider == "google" || EndpointsOf(*account).deviceUrl.empty())
            return AuthorizeInBrowser(*account, say, error);
        return AuthorizeByDevice(*account, say, error);
    };
    if (!error.empty() || !authorize()) {
        std::fprintf(stderr, "Anmeldung fehlgeschlagen: %s\n", error.c_str());
        return 1;
    }
    return 0;
}
