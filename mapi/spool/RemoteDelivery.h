// One way the spooler hands a message to recipients outside the profile's stores (an SMTP server, the
// system's sendmail). The spooler takes the first way that is there for the profile (QueueDelivery.cpp); a
// new way is one implementation in a file of its own and one entry in that list.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "mapi/provider/Profiles.h"
#include "mapi/spool/DeliveryReport.h"

namespace velmar::mapi {

struct CRemoteResult {
    std::vector<std::string> accepted;
    std::vector<CFailedRecipient> refused;  // for good
    std::string problem;                    // why the others wait; empty when none do
};

class IRemoteDelivery {
public:
    // Whether this way is there for the profile (its settings name a server, its program is installed).
    virtual bool Available(const CProfile& profile) const = 0;
    // Hands the message (LF line ends) over for the recipients; a set cancel flag ends a transfer under way
    // (the recipients then wait).
    virtual CRemoteResult Deliver(const CProfile& profile, const std::string& from,
                                  const std::vector<std::string>& recipients, const std::string& message,
                                  const std::atomic<bool>& cancel) const = 0;

protected:
    ~IRemoteDelivery() = default;
};

// The ways there are, in the order they are tried.
const IRemoteDelivery& SmtpDelivery();
const IRemoteDelivery& SendmailDelivery();

}  // namespace velmar::mapi
