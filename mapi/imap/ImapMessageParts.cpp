#include "mapi/imap/ImapMessageParts.h"

#include <strings.h>

#include <charconv>
#include <cstdlib>

#include "mapi/imap/ImapConnection.h"
#include "mapi/imap/ImapLibetpan.h"
#include "mapi/mime/GMimeSupport.h"

namespace velmar::mapi {
namespace {

constexpr std::string_view kLeftOutPrefix = "left-out:";

std::string Child(const std::string& parent, size_t index) {
    return (parent.empty() ? "" : parent + ".") + std::to_string(index + 1);
}

std::string ParameterOf(const mailimap_body_fld_param* parameters, const char* name) {
    if (!parameters || !parameters->pa_list) return {};
    for (clistiter* it = clist_begin(parameters->pa_list); it; it = clist_next(it)) {
        const auto* parameter = static_cast<const mailimap_single_body_fld_param*>(clist_content(it));
        if (parameter && parameter->pa_name && parameter->pa_value &&
            strcasecmp(parameter->pa_name, name) == 0)
            return parameter->pa_value;
    }
    return {};
}

// Outlook's winmail.dat, which the reader unpacks as it reads the message (a message/ type, too, stays: the
// reader may take one for an embedded message).
bool IsTnef(const char* subtype, const std::string& name, const std::string& fileName) {
    return (subtype && (strcasecmp(subtype, "ms-tnef") == 0 || strcasecmp(subtype, "vnd.ms-tnef") == 0)) ||
           strcasecmp(name.c_str(), "winmail.dat") == 0 || strcasecmp(fileName.c_str(), "winmail.dat") == 0;
}

// body: the section of the part's body ("" for the root multipart); header: that of its header.
CImapPart PartOf(const mailimap_body& structure, std::string body, std::string header) {
    CImapPart part;
    part.header = std::move(header);
    part.body = std::move(body);
    if (structure.bd_type == MAILIMAP_BODY_MPART && structure.bd_data.bd_body_mpart) {
        const mailimap_body_type_mpart& multipart = *structure.bd_data.bd_body_mpart;
        part.multipart = true;
        if (multipart.bd_ext_mpart)
            part.boundary = ParameterOf(multipart.bd_ext_mpart->bd_parameter, "boundary");
        size_t index = 0;
        for (clistiter* it = clist_begin(multipart.bd_list); it; it = clist_next(it), ++index) {
            const auto* child = static_cast<const mailimap_body*>(clist_content(it));
            if (!child) continue;
            std::string section = Child(part.body, index);
            part.parts.push_back(PartOf(*child, section, section + ".MIME"));
        }
        return part;
    }
    const mailimap_body_type_1part* leaf = structure.bd_data.bd_body_1part;
    if (!leaf) return part;
    if (leaf->bd_type == MAILIMAP_BODY_TYPE_1PART_BASIC && leaf->bd_data.bd_type_basic &&
        leaf->bd_data.bd_type_basic->bd_fields) {
        const mailimap_body_type_basic& basic = *leaf->bd_data.bd_type_basic;
        const mailimap_body_fld_dsp* disposition =
            leaf->bd_ext_1part ? leaf->bd_ext_1part->bd_disposition : nullptr;
        part.leftOutable =
            basic.bd_media_basic && basic.bd_media_basic->med_type != MAILIMAP_MEDIA_BASIC_MESSAGE &&
            !IsTnef(basic.bd_media_basic->med_subtype, ParameterOf(basic.bd_fields->bd_parameter, "name"),
                    disposition ? ParameterOf(disposition->dsp_attributes, "filename") : "");
        part.octets = basic.bd_fields->bd_size;
    } else if (leaf->bd_type == MAILIMAP_BODY_TYPE_1PART_TEXT && leaf->bd_data.bd_type_text &&
               leaf->bd_data.bd_type_text->bd_fields) {
        part.octets = leaf->bd_data.bd_type_text->bd_fields->bd_size;
    } else if (leaf->bd_type == MAILIMAP_BODY_TYPE_1PART_MSG && leaf->bd_data.bd_type_msg &&
               leaf->bd_data.bd_type_msg->bd_fields) {
        part.octets = leaf->bd_data.bd_type_msg->bd_fields->bd_size;
    }
    return part;
}

// How FETCH names a section in its answer, as the requests here spell it.
std::string SectionName(const mailimap_section* section) {
    if (!section || !section->sec_spec) return {};
    const mailimap_section_spec& specifier = *section->sec_spec;
    if (specifier.sec_type == MAILIMAP_SECTION_SPEC_SECTION_MSGTEXT)
        return specifier.sec_data.sec_msgtext &&
                       specifier.sec_data.sec_msgtext->sec_type == MAILIMAP_SECTION_MSGTEXT_HEADER
                   ? "HEADER"
                   : "?";
    std::string name;
    if (specifier.sec_data.sec_part && specifier.sec_data.sec_part->sec_id) {
        for (clistiter* it = clist_begin(specifier.sec_data.sec_part->sec_id); it; it = clist_next(it)) {
            if (!name.empty()) name += '.';
            name += std::to_string(*static_cast<const std::uint32_t*>(clist_content(it)));
        }
    }
    if (specifier.sec_text)
        name += specifier.sec_text->sec_type == MAILIMAP_SECTION_TEXT_MIME ? ".MIME" : ".?";
    return name;
}

// The request for a section named as SectionName names it: "", "HEADER", "2.1" or "2.1.MIME".
mailimap_section* NewSection(const std::string& name) {
    if (name.empty()) return mailimap_section_new(nullptr);
    if (name == "HEADER") return mailimap_section_new_header();
    const bool mime = name.size() > 5 && name.compare(name.size() - 5, 5, ".MIME") == 0;
    const std::string_view numbers(name.data(), mime ? name.size() - 5 : name.size());
    clist* ids = clist_new();
    size_t start = 0;
    while (start <= numbers.size()) {
        const size_t dot = std::min(numbers.find('.', start), numbers.size());
        std::uint32_t number = 0;
        std::from_chars(numbers.data() + start, numbers.data() + dot, number);
        auto* id = static_cast<std::uint32_t*>(std::malloc(sizeof(std::uint32_t)));
        if (id) {
            *id = number;
            clist_append(ids, id);
        }
        start = dot + 1;
    }
    mailimap_section_part* part = mailimap_section_part_new(ids);
    return mime ? mailimap_section_new_part_mime(part) : mailimap_section_new_part(part);
}

void CollectSections(const CImapPart& part, std::uint64_t leftOutFrom, std::vector<std::string>& sections,
                     std::map<std::string, std::uint64_t>& leftOut, bool& assemblable) {
    sections.push_back(part.header);
    if (part.multipart) {
        if (part.boundary.empty() || part.parts.empty()) assemblable = false;
        for (const CImapPart& child : part.parts)
            CollectSections(child, leftOutFrom, sections, leftOut, assemblable);
    } else if (part.leftOutable && part.octets >= leftOutFrom) {
        leftOut[part.body] = part.octets;
    } else {
        sections.push_back(part.body);
    }
}

// A header section as the message holds it: with the empty line that ends it (a part without header
// fields has that line alone).
void AppendHeader(std::string& message, const std::string& header) {
    message += header;
    const bool ended =
        header == "\r\n" || header == "\n" || header.ends_with("\n\n") || header.ends_with("\n\r\n");
    if (!ended) message += header.empty() || header.ends_with('\n') ? "\r\n" : "\r\n\r\n";
}

bool AppendBody(const CImapPart& part, const std::map<std::string, std::string>& sections,
                std::string& message) {
    if (!part.multipart) {
        const auto body = sections.find(part.body);
        if (body != sections.end()) message += body->second;
        return body != sections.end() || part.leftOutable;
    }
    for (const CImapPart& child : part.parts) {
        const auto header = sections.find(child.header);
        if (header == sections.end()) return false;
        message += "--" + part.boundary + "\r\n";
        AppendHeader(message, header->second);
        if (!AppendBody(child, sections, message)) return false;
        message += "\r\n";
    }
    message += "--" + part.boundary + "--\r\n";
    return true;
}

// Whether GMime's reading of a part is the structure's: the same tree, and every body left out a leaf the
// reader takes for an attachment (no text to show, no embedded message).
bool ReadsAs(GMimeObject* object, const CImapPart& part,
             const std::map<std::string, std::uint64_t>& leftOut) {
    if (!object) return false;
    if (part.multipart != GMIME_IS_MULTIPART(object)) return false;
    if (part.multipart) {
        GMimeMultipart* multipart = GMIME_MULTIPART(object);
        if (g_mime_multipart_get_count(multipart) != static_cast<int>(part.parts.size())) return false;
        for (size_t i = 0; i < part.parts.size(); ++i)
            if (!ReadsAs(g_mime_multipart_get_part(multipart, static_cast<int>(i)), part.parts[i], leftOut))
                return false;
        return true;
    }
    return !leftOut.count(part.body) ||
           (GMIME_IS_PART(object) && !GMIME_IS_TEXT_PART(object) && !GMIME_IS_MESSAGE_PART(object));
}

bool ReadsAsStructure(std::string_view message, const CImapPart& root,
                      const std::map<std::string, std::uint64_t>& leftOut) {
    EnsureGMime();
    GObjectPtr<GMimeStream> stream(g_mime_stream_mem_new_with_buffer(message.data(), message.size()));
    GObjectPtr<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
    GObjectPtr<GMimeMessage> parsed(g_mime_parser_construct_message(parser.get(), nullptr));
    return parsed && ReadsAs(g_mime_message_get_mime_part(parsed.get()), root, leftOut);
}

}  // namespace

std::optional<std::string> FetchInParts(CImapConnection& connection, std::uint32_t uid,
                                        std::uint64_t leftOutFrom,
                                        std::map<std::string, std::uint64_t>& leftOut, std::string& error) {
    leftOut.clear();
    CImapPart root;
    if (!connection.FetchStructure(uid, root, error)) return std::nullopt;
    const std::vector<std::string> sections = SectionsToFetch(root, leftOutFrom, leftOut);
    std::map<std::string, std::string> fetched;
    std::optional<std::string> message;
    if (!sections.empty() && LeftOutLine(leftOut).size() <= kLongestLeftOutLine &&
        connection.FetchSections(uid, sections, fetched, error))
        message = AssembleMessage(root, fetched);
    if (message && !ReadsAsStructure(*message, root, leftOut)) message.reset();
    if (!message) leftOut.clear();
    return message;
}

std::vector<std::string> SectionsToFetch(const CImapPart& root, std::uint64_t leftOutFrom,
                                         std::map<std::string, std::uint64_t>& leftOut) {
    std::vector<std::string> sections;
    bool assemblable = true;
    leftOut.clear();
    CollectSections(root, leftOutFrom, sections, leftOut, assemblable);
    if (!assemblable || leftOut.empty()) {
        leftOut.clear();
        return {};
    }
    return sections;
}

std::optional<std::string> AssembleMessage(const CImapPart& root,
                                           const std::map<std::string, std::string>& sections) {
    const auto header = sections.find(root.header);
    if (header == sections.end()) return std::nullopt;
    std::string message;
    AppendHeader(message, header->second);
    if (!AppendBody(root, sections, message)) return std::nullopt;
    return message;
}

std::string LeftOutLine(const std::map<std::string, std::uint64_t>& leftOut) {
    std::string line(kLeftOutPrefix);
    for (const auto& [section, octets] : leftOut) line += " " + section + "=" + std::to_string(octets);
    return line;
}

std::optional<std::map<std::string, std::uint64_t>> ParseLeftOutLine(std::string_view line) {
    if (!line.starts_with(kLeftOutPrefix)) return std::nullopt;
    line.remove_prefix(kLeftOutPrefix.size());
    std::map<std::string, std::uint64_t> leftOut;
    while (!line.empty()) {
        if (line.front() == ' ') {
            line.remove_prefix(1);
            continue;
        }
        const size_t end = std::min(line.find(' '), line.size());
        const std::string_view item = line.substr(0, end);
        const size_t equals = item.find('=');
        std::uint64_t octets = 0;
        if (equals == std::string_view::npos || equals == 0 ||
            std::from_chars(item.data() + equals + 1, item.data() + item.size(), octets).ec != std::errc())
            return std::nullopt;
        leftOut[std::string(item.substr(0, equals))] = octets;
        line.remove_prefix(end);
    }
    return leftOut;
}

bool CImapConnection::FetchStructure(std::uint32_t uid, CImapPart& root, std::string& error) {
    if (!m_session) return false;
    FetchType type(mailimap_fetch_type_new_fetch_att_list_empty());
    mailimap_fetch_type_new_fetch_att_list_add(type.get(), mailimap_fetch_att_new_uid());
    mailimap_fetch_type_new_fetch_att_list_add(type.get(), mailimap_fetch_att_new_bodystructure());
    const ImapSet set = UidRange(uid, uid);
    clist* raw = nullptr;
    const int result = mailimap_uid_fetch(m_session, set.get(), type.get(), &raw);
    const FetchList results = TakeFetchList(result, raw);
    if (!Check(result, ("UID FETCH " + std::to_string(uid) + " BODYSTRUCTURE").c_str(), error)) return false;
    for (clistiter* it = clist_begin(results.get()); it; it = clist_next(it)) {
        std::uint32_t fetchedUid = 0;
        const mailimap_body* structure = nullptr;
        ForEachStaticItem(static_cast<const mailimap_msg_att*>(clist_content(it)),
                          [&](const mailimap_msg_att_static& value) {
                              if (value.att_type == MAILIMAP_MSG_ATT_UID) fetchedUid = value.att_data.att_uid;
                              if (value.att_type == MAILIMAP_MSG_ATT_BODYSTRUCTURE)
                                  structure = value.att_data.att_bodystructure;
                          });
        if (fetchedUid == uid && structure) {
            const bool multipart = structure->bd_type == MAILIMAP_BODY_MPART;
            root = PartOf(*structure, multipart ? "" : "1", "HEADER");
            return true;
        }
    }
    error = "Nachricht " + std::to_string(uid) + " nicht auf dem Server";
    return false;
}

bool CImapConnection::FetchSections(std::uint32_t uid, const std::vector<std::string>& sections,
                                    std::map<std::string, std::string>& bytes, std::string& error) {
    if (!m_session) return false;
    FetchType type(mailimap_fetch_type_new_fetch_att_list_empty());
    mailimap_fetch_type_new_fetch_att_list_add(type.get(), mailimap_fetch_att_new_uid());
    for (const std::string& section : sections)
        mailimap_fetch_type_new_fetch_att_list_add(
            type.get(), mailimap_fetch_att_new_body_peek_section(NewSection(section)));
    const ImapSet set = UidRange(uid, uid);
    clist* raw = nullptr;
    const int result = mailimap_uid_fetch(m_session, set.get(), type.get(), &raw);
    const FetchList results = TakeFetchList(result, raw);
    if (!Check(result, ("UID FETCH " + std::to_string(uid)).c_str(), error)) return false;
    for (clistiter* it = clist_begin(results.get()); it; it = clist_next(it)) {
        std::uint32_t fetchedUid = 0;
        std::map<std::string, std::string> found;
        ForEachStaticItem(static_cast<const mailimap_msg_att*>(clist_content(it)),
                          [&](const mailimap_msg_att_static& value) {
                              if (value.att_type == MAILIMAP_MSG_ATT_UID) fetchedUid = value.att_data.att_uid;
                              if (value.att_type != MAILIMAP_MSG_ATT_BODY_SECTION) return;
                              const mailimap_msg_att_body_section* section = value.att_data.att_body_section;
                              // NIL: the server has no such section.
                              if (!section || !section->sec_body_part) return;
                              found[SectionName(section->sec_section)].assign(section->sec_body_part,
                                                                              section->sec_length);
                          });
        if (fetchedUid != uid) continue;
        for (auto& [name, part] : found) bytes[name] = std::move(part);
    }
    for (const std::string& section : sections) {
        if (bytes.count(section)) continue;
        error = "Nachricht " + std::to_string(uid) + " nicht auf dem Server";
        return false;
    }
    return true;
}

bool CImapConnection::FetchMessage(std::uint32_t uid, std::string& bytes, std::string& error) {
    std::map<std::string, std::string> sections;
    if (!FetchSections(uid, {""}, sections, error)) return false;
    bytes = std::move(sections[""]);
    return true;
}

}  // namespace velmar::mapi
