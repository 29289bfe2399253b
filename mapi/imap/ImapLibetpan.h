// What the connection's files share of libetpan: owners of its results, freed with its own functions, and
// the walk over the items of one FETCH response.
#pragma once

#include <libetpan/libetpan.h>

#include <cstdint>
#include <memory>

namespace velmar::mapi {

// Owners of libetpan's results, freed with their own functions.
struct CFetchListDeleter {
    void operator()(clist* list) const { mailimap_fetch_list_free(list); }
};
using FetchList = std::unique_ptr<clist, CFetchListDeleter>;
struct CSetDeleter {
    void operator()(mailimap_set* set) const { mailimap_set_free(set); }
};
using ImapSet = std::unique_ptr<mailimap_set, CSetDeleter>;
struct CFetchTypeDeleter {
    void operator()(mailimap_fetch_type* type) const { mailimap_fetch_type_free(type); }
};
using FetchType = std::unique_ptr<mailimap_fetch_type, CFetchTypeDeleter>;
struct CFlagListDeleter {
    void operator()(mailimap_flag_list* list) const { mailimap_flag_list_free(list); }
};
using FlagList = std::unique_ptr<mailimap_flag_list, CFlagListDeleter>;

// The answers of a (UID) FETCH: libetpan frees them itself when the server refused the command, without
// clearing the pointer it handed out, so only a FETCH that succeeded gives them an owner.
inline FetchList TakeFetchList(int result, clist* raw) {
    return FetchList(result == MAILIMAP_NO_ERROR ? raw : nullptr);
}

// UIDs from..to, or from..* when to is 0.
inline ImapSet UidRange(std::uint32_t from, std::uint32_t to) {
    return ImapSet(mailimap_set_new_interval(from, to));
}

// Walks the items of one FETCH response.
template <class Visit>
void ForEachItem(const mailimap_msg_att* message, Visit&& visit) {
    for (clistiter* it = clist_begin(message->att_list); it; it = clist_next(it))
        visit(*static_cast<const mailimap_msg_att_item*>(clist_content(it)));
}

// Walks the static items of one FETCH response (UID, sections, structure: all but the flags).
template <class Visit>
void ForEachStaticItem(const mailimap_msg_att* message, Visit&& visit) {
    ForEachItem(message, [&](const mailimap_msg_att_item& item) {
        if (item.att_type == MAILIMAP_MSG_ATT_ITEM_STATIC && item.att_data.att_static)
            visit(*item.att_data.att_static);
    });
}

}  // namespace velmar::mapi
