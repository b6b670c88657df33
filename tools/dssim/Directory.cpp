#include "Directory.h"

#include <ntdsapi.h>

#include <cwctype>

#include "Text.h"  // evtsim's UTF-8, GUID and SID helpers

namespace dssim {

using evtsim::iequals;

namespace {

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '\r')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.remove_suffix(1);
    return s;
}

std::wstring upperFirstLabel(std::wstring_view dnsName) {
    std::wstring label(dnsName.substr(0, dnsName.find(L'.')));
    for (wchar_t& c : label) c = static_cast<wchar_t>(std::towupper(c));
    return label;
}

bool parseBool(std::string_view v, bool& out) {
    if (iequals(v, "yes") || iequals(v, "true") || v == "1") out = true;
    else if (iequals(v, "no") || iequals(v, "false") || v == "0") out = false;
    else return false;
    return true;
}

enum class Section { None, Dc, Schema, Object };

// One record being read; checked and completed when the next one starts.
struct Reader {
    explicit Reader(Directory& d) : dir(d) {}
    Directory& dir;
    Section section = Section::None;
    DomainController dc;
    SchemaEntry schema;
    DirectoryObject object;
    bool hasSchemaGuid = false;

    const char* field(std::string_view key, std::string_view value) {
        std::wstring wide = evtsim::toWide(value);
        switch (section) {
        case Section::None: return "field outside a [dc], [schema] or [object] record";
        case Section::Dc:
            if (key == "name") dc.name = wide;
            else if (key == "address") dc.address = wide;
            else if (key == "site") dc.site = wide;
            else if (key == "client_site") dc.clientSite = wide;
            else if (key == "domain") dc.domain = wide;
            else if (key == "flat_domain") dc.flatDomain = wide;
            else if (key == "forest") dc.forest = wide;
            else if (key == "domain_guid") return evtsim::parseGuid(value, dc.domainGuid) ? nullptr : "bad GUID";
            else if (key == "closest") return parseBool(value, dc.closest) ? nullptr : "bad yes/no";
            else if (key == "pdc") return parseBool(value, dc.pdc) ? nullptr : "bad yes/no";
            else if (key == "gc") return parseBool(value, dc.gc) ? nullptr : "bad yes/no";
            else if (key == "available") return parseBool(value, dc.available) ? nullptr : "bad yes/no";
            else return "unknown field";
            return nullptr;
        case Section::Schema:
            if (key == "guid") {
                hasSchemaGuid = evtsim::parseGuid(value, schema.guid);
                return hasSchemaGuid ? nullptr : "bad GUID";
            }
            if (key == "name") {
                schema.name = wide;
                return nullptr;
            }
            if (key != "kind") return "unknown field";
            if (value == "attribute") schema.type = DS_SCHEMA_GUID_ATTR;
            else if (value == "property_set") schema.type = DS_SCHEMA_GUID_ATTR_SET;
            else if (value == "class") schema.type = DS_SCHEMA_GUID_CLASS;
            else if (value == "extended_right") schema.type = DS_SCHEMA_GUID_CONTROL_RIGHT;
            else return "kind is class, attribute, property_set or extended_right";
            return nullptr;
        case Section::Object:
            if (key == "guid") {
                object.hasGuid = evtsim::parseGuid(value, object.guid);
                return object.hasGuid ? nullptr : "bad GUID";
            }
            if (key == "sid" || key == "sid_history") {
                std::string sid;
                if (!evtsim::parseSid(value, sid)) return "bad SID";
                if (key == "sid") object.sids.insert(object.sids.begin(), sid);
                else object.sids.push_back(sid);
                return nullptr;
            }
            if (key == "dn") object.dn = wide;
            else if (key == "account") object.account = wide;
            else if (key == "domain") object.domain = wide;
            else return "unknown field";
            return nullptr;
        }
        return "unknown field";
    }

    const char* finish() {
        switch (section) {
        case Section::None: break;
        case Section::Dc:
            if (dc.name.empty() || dc.domain.empty()) return "a [dc] needs name and domain";
            dc.flatName = upperFirstLabel(dc.name);
            if (dc.flatDomain.empty()) dc.flatDomain = upperFirstLabel(dc.domain);
            if (dc.forest.empty()) dc.forest = dc.domain;
            dir.dcs.push_back(std::move(dc));
            break;
        case Section::Schema:
            if (!hasSchemaGuid || schema.type == 0 || schema.name.empty()) return "a [schema] needs guid, kind and name";
            dir.schema.push_back(std::move(schema));
            break;
        case Section::Object:
            if (object.dn.empty()) return "an [object] needs dn";
            if (object.domain.empty()) object.domain = domainOfDn(object.dn);
            dir.objects.push_back(std::move(object));
            break;
        }
        dc = DomainController{};
        schema = SchemaEntry{};
        object = DirectoryObject{};
        hasSchemaGuid = false;
        return nullptr;
    }
};

// The RDNs of a DN (split at unescaped commas) as type and unescaped value.
std::vector<std::pair<std::wstring, std::wstring>> rdns(std::wstring_view dn) {
    std::vector<std::pair<std::wstring, std::wstring>> out;
    std::wstring type, value;
    bool inValue = false;
    for (size_t i = 0; i <= dn.size(); ++i) {
        if (i == dn.size() || dn[i] == L',') {
            out.emplace_back(type, value);
            type.clear(), value.clear(), inValue = false;
        } else if (dn[i] == L'\\' && i + 1 < dn.size()) {
            (inValue ? value : type) += dn[++i];
        } else if (dn[i] == L'=' && !inValue) {
            inValue = true;
        } else if (inValue || dn[i] != L' ') {
            (inValue ? value : type) += dn[i];
        }
    }
    return out;
}

}  // namespace

const DomainController* Directory::controllerNamed(std::wstring_view name) const {
    while (!name.empty() && name.front() == L'\\') name.remove_prefix(1);
    for (const DomainController& dc : dcs)
        if (iequals(dc.name, name) || iequals(dc.flatName, name)) return &dc;
    return nullptr;
}

const SchemaEntry* Directory::schemaEntry(const GUID& guid) const {
    for (const SchemaEntry& s : schema)
        if (IsEqualGUID(s.guid, guid)) return &s;
    return nullptr;
}

bool parseDirectory(std::string_view text, Directory& out, std::string& error) {
    out = Directory{};
    Reader reader(out);
    size_t pos = 0, lineNo = 0;
    auto fail = [&](const char* why) {
        error = "directory.txt line " + std::to_string(lineNo) + ": " + why;
        return false;
    };
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        if (nl == std::string_view::npos) nl = text.size();
        std::string_view line = trim(text.substr(pos, nl - pos));
        pos = nl + 1;
        ++lineNo;
        if (line.empty() || line.front() == '#') continue;
        if (line.front() == '[') {
            if (const char* why = reader.finish()) return fail(why);
            if (line == "[dc]") reader.section = Section::Dc;
            else if (line == "[schema]") reader.section = Section::Schema;
            else if (line == "[object]") reader.section = Section::Object;
            else return fail("unknown record (not [dc], [schema] or [object])");
            continue;
        }
        size_t eq = line.find('=');
        if (eq == std::string_view::npos) return fail("missing '='");
        if (const char* why = reader.field(trim(line.substr(0, eq)), trim(line.substr(eq + 1)))) return fail(why);
    }
    ++lineNo;
    if (const char* why = reader.finish()) return fail(why);
    return true;
}

std::wstring domainOfDn(std::wstring_view dn) {
    std::wstring domain;
    for (const auto& [type, value] : rdns(dn)) {
        if (!iequals(type, L"DC")) continue;
        if (!domain.empty()) domain += L'.';
        domain += value;
    }
    return domain;
}

bool canonicalName(std::wstring_view dn, bool extended, std::wstring& out) {
    out = domainOfDn(dn);
    if (out.empty()) return false;
    // From the top of the tree down to the object: the RDNs in reverse order.
    auto parts = rdns(dn);
    std::wstring path;
    for (auto it = parts.rbegin(); it != parts.rend(); ++it)
        if (!iequals(it->first, L"DC")) path += L'/' + it->second;
    out += path.empty() ? L"/" : path;
    if (extended) out[out.rfind(L'/')] = L'\n';
    return true;
}

}  // namespace dssim
