// Load must refuse or accept any bytes without crashing; what it accepts must survive Emit and Load again
// unchanged, in both output modes; on text holding a brace LoadText must agree with it. The same bytes also
// serve as a lookup path.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "json/CkJsonArray.h"
#include "json/CkJsonObject.h"

namespace {

std::string EmitWith(CkJsonObject& json, bool compact) {
    json.SetCompactOutput(compact);
    const char* text = json.Emit();
    if (!text) std::abort();
    return text;
}

void CheckRoundTrip(std::string_view input, bool utf8) {
    CkJsonObject json;
    json.SetUtf8Strings(utf8);
    const bool loaded = json.Load(input);
    // Text with a brace is never a file name, so LoadText must agree with Load on it.
    if (input.find('{') != input.npos) {
        CkJsonObject text;
        text.SetUtf8Strings(utf8);
        if (text.LoadText(input) != loaded) std::abort();
    }
    if (!loaded) return;
    const std::string compact = EmitWith(json, true);
    const std::string indented = EmitWith(json, false);
    for (const std::string& emitted : {compact, indented}) {
        CkJsonObject again;
        again.SetUtf8Strings(utf8);
        if (!again.Load(emitted) || EmitWith(again, true) != compact) std::abort();
    }
}

void CheckPath(std::string_view input) {
    static const char kDocument[] = R"({"a":{"b":[1,{"c":"x"},[true]]},"s":"t","n":null})";
    CkJsonObject json;
    if (!json.Load(kDocument)) std::abort();
    const std::string path(input.substr(0, input.find('\0')));
    const char* text = json.StringOf(path.c_str());
    if ((text != nullptr) != json.HasMember(path.c_str())) std::abort();
    json.IntOf(path.c_str());
    json.BoolOf(path.c_str());
    if (std::unique_ptr<CkJsonArray> array = json.ArrayOf(path.c_str())) {
        for (int i = 0; i < array->Count(); ++i) {
            array->StringAt(i);
            array->ObjectAt(i);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    CheckRoundTrip(input, false);
    CheckRoundTrip(input, true);
    if (size < 256) CheckPath(input);
    return 0;
}
