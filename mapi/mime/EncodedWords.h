// Encoded words (RFC 2047) in header text. This is the one place where our MIME reading decodes them, for
// subjects, display names and parameters such as file names alike; GMime's own decoding joins the
// payloads of adjacent words before it decodes them, so that a base64 word's padding cuts off the words
// after it ("=?UTF-8?B?SGVsbG8=?= =?UTF-8?B?IFdvcmxk?=" reads "Hello"), and reads a raw 8-bit byte inside
// a word twice. It is not used for these.
#pragma once

#include <string>
#include <string_view>

namespace velmar::mapi {

// Header text with its encoded words decoded, as UTF-8; text is unfolded (no line breaks). Each word is
// decoded on its own, and the bytes of adjacent words (only white space between them) of one charset are
// joined before they are read in it, so that a character split across two words comes out whole; the
// white space between adjacent words is dropped. Words are found wherever they stand, also inside other
// text and quoted strings, as mail clients find them, and a raw 8-bit byte inside a word is that byte.
// Text outside words is read as HeaderBytesToUtf8 reads it with hint.
std::string DecodeEncodedWords(std::string_view text, std::string_view hint);

// The length of the encoded word that starts at text[pos] as DecodeEncodedWords finds it; 0 when none
// does.
size_t EncodedWordLength(std::string_view text, size_t pos);

}  // namespace velmar::mapi
