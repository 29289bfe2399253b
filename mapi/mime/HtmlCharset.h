// The charset of an HTML body: the one its meta tags declare, and the declaration made to say UTF-8 once
// the text is converted.
#pragma once

#include <string>
#include <string_view>

namespace velmar::mapi {

// The charset a <meta charset> or <meta http-equiv="Content-Type" content="...; charset=..."> in the
// document's head declares (HTML5's prescan), or empty when none does. A UTF-16 declaration reads UTF-8,
// as HTML5 says: the bytes could not have been read that far otherwise.
std::string HtmlDeclaredCharset(std::string_view html);

// The HTML with its charset declaration saying utf-8: declarations in its head are rewritten in place
// ("charset=utf-8"); without one, a meta tag is put inside <head>, after any doctype, and a head made
// where there is none. A declaration before the doctype would throw browsers into quirks mode.
std::string DeclareUtf8(std::string html);

}  // namespace velmar::mapi
