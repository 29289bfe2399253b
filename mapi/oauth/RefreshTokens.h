// Where an account's refresh token is kept between runs: in the desktop's Secret Service (its default
// collection, through libsecret) where a session bus is and the service answers; else in a file of its own
// under DataFolder()/oauth2 that only the user can read, in a folder only the user can enter, written whole
// or not at all.
#pragma once

#include <optional>
#include <string>

namespace velmar::mapi {

// The token kept under key (COAuth2Account::tokenKey); nullopt when there is none.
std::optional<std::string> LoadRefreshToken(const std::string& key);

// Keeps token under key, replacing what was there; false with error set when it cannot be written.
bool SaveRefreshToken(const std::string& key, const std::string& token, std::string& error);

}  // namespace velmar::mapi
