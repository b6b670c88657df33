#include "channel/ClassicFields.h"

#include "platform/Strings.h"

namespace skorva {

std::wstring_view classicFieldName(ClassicField field) {
    static constexpr std::wstring_view kNames[] = {
        L"$Timestamp", L"LogName",  L"EventCode",    L"EventType", L"ComputerName",
        L"User",       L"Sid",      L"SidType",      L"SourceName", L"Type",
        L"RecordNumber", L"Keywords", L"TaskCategory", L"OpCode",   L"Message"};
    return kNames[static_cast<int>(field)];
}

bool classicFieldSuppressed(ClassicField field, const ChannelSettings& s) {
    switch (field) {
    case ClassicField::SourceName: return s.suppressSourceName;
    case ClassicField::Type: return s.suppressType;
    case ClassicField::Keywords: return s.suppressKeywords;
    case ClassicField::TaskCategory: return s.suppressTask;
    case ClassicField::OpCode: return s.suppressOpcode;
    default: return false;
    }
}

std::wstring_view decimalText(uint64_t n, std::wstring& scratch) {
    scratch.clear();
    appendDecimal(n, scratch);
    return scratch;
}

bool UserFields::process(PSID sid, bool lookup) {
    sid_.valid = false;
    sid_.sidType = 0;
    sid_.domainName.clear();
    ok_ = sid_.processSid(sid, lookup);
    return ok_;
}

FieldValue UserFields::value(ClassicField field, std::wstring_view& value, std::wstring& scratch) const {
    if (!ok_) return FieldValue::Absent;
    switch (field) {
    case ClassicField::User:
        scratch = sid_.domainName;
        if (!scratch.empty()) scratch += L'\\';
        scratch += sid_.accountName;
        value = scratch;
        return FieldValue::Present;
    case ClassicField::Sid: value = sid_.sidString; return FieldValue::Present;
    case ClassicField::SidType: value = decimalText(sid_.sidType, scratch); return FieldValue::Present;
    default: return FieldValue::Absent;
    }
}

}  // namespace skorva
