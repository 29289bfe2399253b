// What the accounts of a profile (its SMTP server, its IMAP stores) share: passwords, from a command or
// from the profile file itself, and whether a host is this machine.
#pragma once

#include <optional>
#include <string>

namespace velmar::mapi {

// The first output line of command without its line end, run by /bin/sh -c in a process group of its own
// with its input on /dev/null; a command that fails, is killed or runs longer than 30 s is an error. Nullopt
// with error set to a sentence saying why; the output is never put in error, as it may be the password.
std::optional<std::string> PasswordFromCommand(const std::string& command, std::string& error);

// What a key of the profile file hands the service: a command it runs (passwordeval, imaptunnel) or a secret
// (password).
enum class EProfileTrust { Command, Secret };

// One rule for every key that is run or secret: the profile file (stat'ed) belongs to the user the service
// runs as and nobody else may write it; for a secret, nobody else may read it either. False, with error a
// sentence saying that key is ignored and why, when the file is not so.
bool ProfileFileTrusted(const std::string& profileFile, const std::string& key, EProfileTrust trust,
                        std::string& error);

// A password written in the profile file under key: honoured only when the file is trusted with secrets
// (ProfileFileTrusted); else nullopt and error says why.
std::optional<std::string> PasswordFromProfile(const std::string& password, const std::string& key,
                                               const std::string& profileFile, std::string& error);

// The password that command prints, for the key of the profile file that names the command: nullopt with
// error set when the file is not trusted with commands or the command fails (PasswordFromCommand).
std::optional<std::string> PasswordFromProfileCommand(const std::string& command, const std::string& key,
                                                      const std::string& profileFile, std::string& error);

// The host of "scheme://[user@]host[:port][/...]", without the brackets around an IPv6 address.
std::string HostOfUrl(const std::string& url);

// A loopback host: "localhost", 127.0.0.0/8 or ::1. Only addresses in numeric form count:
// "127.example.org" is a name like any other.
bool IsLoopbackHost(const std::string& host);

}  // namespace velmar::mapi
