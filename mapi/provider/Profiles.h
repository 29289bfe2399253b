// The profiles of this MAPI and their message stores, from the provider's own profile file:
// $VELMAR_MAPI_PROFILES, else $XDG_CONFIG_HOME/velmar-mapi/profiles.ini (~/.config by default).
//
//   [Velmar]                          ; a profile, named by its section
//   default = yes                     ; the profile MAPI_LOGON_UI falls back to (else the first one)
//   store1.name = Postfach            ; display name of the store
//   store1.path = ~/Maildir           ; its Maildir++ folder (relative paths: beside the profile file)
//   store1.address = me@example.org   ; the owner's SMTP address
//   store1.owner = Maria Muster       ; the owner's name (else the local part of the address, "me")
//   store1.default = yes              ; the session's default store (else the first one)
//   store2.imap = imaps://mail.example.org   ; an IMAP account instead of a Maildir (imap:// uses STARTTLS,
//                                     ; required unless the host is a loopback address)
//   store2.user = anna@example.org    ; with store2.passwordeval (a command whose first output line is the
//                                     ; password) or store2.password (only in a file nobody else can read),
//                                     ; store2.cafile (a CA bundle for a private server), store2.imaptunnel
//                                     (a ; command whose input and output speak IMAP, logged in already)
//   store2.auth = oauth2              ; signed in with OAuth2 instead: the store2.oauth2.* keys, see
//                                     ; OAuth2Account.h
//   contact1.name = Anna Beispiel     ; a name the address book resolves
//   contact1.address = anna@example.org
//   smtp.url = smtp://mail.example.org:587   ; and the other smtp.* keys: see the spooler (SmtpSettings.h)
//
// Without a profile file there is one embedded profile "Velmar" with the store "Postfach" at
// $XDG_DATA_HOME/velmar-mapi/Maildir (~/.local/share by default), owned by $USER@localhost.
//
// The store table and the store show the owner as a MAPI server does: PR_EMAIL_ADDRESS_W is the address,
// PR_MAILBOX_OWNER_NAME_W is OwnerName(store). Either is missing when it would be empty.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "mapi/provider/OAuth2Account.h"

namespace velmar::mapi {

// The IMAP account of a store whose mail lives on a server.
struct CImapAccount {
    std::string url;   // imaps://host[:port] or imap://host[:port] as written
    std::string host;  // without the brackets of an IPv6 address
    std::uint16_t port = 0;
    bool implicitTls = false;  // imaps://: TLS from the first byte; else STARTTLS
    std::string user;
    std::string passwordEval;
    std::string password;
    // A CA bundle (PEM) trusted instead of the system's store, for a server with a private certificate.
    std::string caFile;
    // A command whose standard input and output speak IMAP, already logged in ("ssh host imapd").
    std::string tunnel;
    COAuth2Account oauth2;  // enabled: signed in with an access token instead of the password
};

struct CStoreConfig {
    std::wstring displayName;
    // absolute. For an IMAP store a local folder of the provider's own: the Outbox and the spooler's queue
    // stay on this machine, so that a message to be sent survives the server being unreachable.
    std::string path;
    std::wstring ownerAddress;
    std::wstring ownerName;  // as the profile gives it; empty when it gives none
    bool isDefault = false;
    std::uint64_t id = 0;              // StoreIdForPath(path)
    unsigned number = 0;               // N of its storeN keys
    std::optional<CImapAccount> imap;  // set for a store on an IMAP server
};

// A person the address book knows by name: "contactN.name" and "contactN.address" of the profile.
struct CContact {
    std::wstring name;
    std::wstring address;
};

struct CProfile {
    std::wstring name;
    bool isDefault = false;
    std::vector<CStoreConfig> stores;  // exactly one is the default when there are any
    std::vector<CContact> contacts;    // those with an address, in the order of their numbers
    // The other keys of the section as they stand ("smtp.url", ...), for the spooler to read.
    std::vector<std::pair<std::wstring, std::wstring>> settings;
};

// The name of the store's owner: the profile's, else the local part of the address (the part before its
// last "@"; the whole address when it has none); empty when the profile gives neither.
std::wstring OwnerName(const CStoreConfig& store);

// The profiles as the profile file says now; exactly one is the default when there are any.
// A store with neither a path nor a usable IMAP URL is left out.
std::vector<CProfile> LoadProfiles();
// The file LoadProfiles reads.
std::string ProfilesFilePath();
// The folder for what the provider keeps of its own about a store (IMAP indexes, cached messages):
// $XDG_CACHE_HOME/velmar-mapi (~/.cache by default).
std::string CacheFolder();
// The folder for what the provider keeps of its own that must last (the embedded profile's Maildir, the IMAP
// stores' Outboxes, refresh tokens): $XDG_DATA_HOME/velmar-mapi (~/.local/share by default).
std::string DataFolder();

}  // namespace velmar::mapi
