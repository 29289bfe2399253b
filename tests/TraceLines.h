// Expected trace lines of the mail layer, written short and put together from named pieces.
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

namespace velmar::test {

// The lines of one method's steps: Steps("FetchBody", {"start", "Stat"}) stands for the lines
// "CVelmarMapi::FetchBody start" and "CVelmarMapi::FetchBody Stat".
template <class TChar>
std::vector<std::basic_string<TChar>> Steps(const TChar* method, std::initializer_list<const TChar*> steps) {
    static constexpr char kClass[] = "CVelmarMapi::";
    std::vector<std::basic_string<TChar>> lines;
    for (const TChar* step : steps)
        lines.push_back(std::basic_string<TChar>(kClass, kClass + sizeof kClass - 1) + method +
                        static_cast<TChar>(' ') + step);
    return lines;
}

// The pieces one after another.
template <class TLine>
std::vector<TLine> Joined(std::initializer_list<std::vector<TLine>> parts) {
    std::vector<TLine> lines;
    for (const auto& part : parts) lines.insert(lines.end(), part.begin(), part.end());
    return lines;
}

// What Logoff does before it logs the session off; Logon does it first too.
inline std::vector<std::wstring> LogoffTrace() {
    return Joined<std::wstring>(
        {Steps(L"Logoff", {L"start", L"SetAddrBook"}), Steps(L"SetAddrBook", {L"start", L"end"}),
         Steps(L"Logoff", {L"ReleaseSessionData start"}), Steps(L"ReleaseSessionData", {L"start", L"end"}),
         Steps(L"Logoff", {L"ReleaseSessionData end"})});
}

}  // namespace velmar::test
