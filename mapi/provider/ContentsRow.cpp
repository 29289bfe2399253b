#include "mapi/provider/ContentsRow.h"

#include <algorithm>
#include <iterator>

#include "mapitags.h"
#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

constexpr ULONG kContentsColumns[] = {PR_ENTRYID,   PR_INSTANCE_KEY,  PR_INTERNET_MESSAGE_ID_A,
                                      PR_SUBJECT_W, PR_MESSAGE_FLAGS, PR_CREATION_TIME};
// Every value a row has, in the order ContentsRowValues gives them.
constexpr ULONG kRowTags[] = {
    PR_ENTRYID,       PR_INSTANCE_KEY,  PR_INTERNET_MESSAGE_ID_A, PR_SUBJECT_W,    PR_MESSAGE_CLASS_A,
    PR_MESSAGE_FLAGS, PR_CREATION_TIME, PR_MESSAGE_DELIVERY_TIME, PR_MESSAGE_SIZE, PR_OBJECT_TYPE};

}  // namespace

std::vector<ULONG> ContentsColumns() {
    return std::vector<ULONG>(std::begin(kContentsColumns), std::end(kContentsColumns));
}

const CPropValue* ContentsValue(const CContentsFacts& message, ULONG tag, CPropValue& slot) {
    switch (PROP_ID(tag)) {
        case PROP_ID(PR_ENTRYID):
            slot = {PR_ENTRYID,
                    EncodeEntryId({EntryKind::Message, message.storeId, std::string(message.folder),
                                   std::string(message.key), message.file})};
            break;
        case PROP_ID(PR_INSTANCE_KEY): {
            std::vector<BYTE> instance(message.key.begin(), message.key.end());
            // Each file of a key is a row of its own.
            if (message.file)
                for (int i = 0; i < 8; ++i) instance.push_back(static_cast<BYTE>(*message.file >> (8 * i)));
            slot = {PR_INSTANCE_KEY, std::move(instance)};
            break;
        }
        case PROP_ID(PR_INTERNET_MESSAGE_ID_A):
            slot = {PR_INTERNET_MESSAGE_ID_A, std::string(message.messageId)};
            break;
        case PROP_ID(PR_SUBJECT_W):
            slot = {PR_SUBJECT_W, Utf8ToWide(message.subject)};
            break;
        case PROP_ID(PR_MESSAGE_CLASS_A):
            slot = {PR_MESSAGE_CLASS_A, std::string("IPM.Note")};
            break;
        case PROP_ID(PR_MESSAGE_FLAGS):
            slot = {PR_MESSAGE_FLAGS, message.read ? std::int32_t{MSGFLAG_READ} : 0};
            break;
        case PROP_ID(PR_CREATION_TIME):
            slot = {PR_CREATION_TIME, message.delivered};
            break;
        case PROP_ID(PR_MESSAGE_DELIVERY_TIME):
            slot = {PR_MESSAGE_DELIVERY_TIME, message.delivered};
            break;
        case PROP_ID(PR_MESSAGE_SIZE):
            slot = {PR_MESSAGE_SIZE,
                    static_cast<std::int32_t>(std::min<std::uint64_t>(message.size, 0x7FFFFFFF))};
            break;
        case PROP_ID(PR_OBJECT_TYPE):
            slot = {PR_OBJECT_TYPE, static_cast<std::int32_t>(MAPI_MESSAGE)};
            break;
        default:
            return nullptr;
    }
    return Answers(slot, tag) ? &slot : nullptr;
}

std::vector<CPropValue> ContentsRowValues(const ITableRows& rows, size_t row) {
    std::vector<CPropValue> values;
    values.reserve(std::size(kRowTags));
    for (const ULONG tag : kRowTags) {
        CPropValue slot{};
        if (const CPropValue* value = rows.Find(row, tag, slot)) values.push_back(*value);
    }
    return values;
}

std::optional<std::string> RestrictedMessageId(const SPropValue& value) {
    if (PROP_ID(value.ulPropTag) != PROP_ID(PR_INTERNET_MESSAGE_ID_A)) return std::nullopt;
    if (PROP_TYPE(value.ulPropTag) == PT_STRING8 && value.Value.lpszA) return std::string(value.Value.lpszA);
    if (PROP_TYPE(value.ulPropTag) == PT_UNICODE && value.Value.lpszW) return WideToUtf8(value.Value.lpszW);
    return std::nullopt;
}

}  // namespace velmar::mapi
