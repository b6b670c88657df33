#include "channel/EventValueText.h"

#include <cstdio>
#include <cstring>

namespace skorva {

namespace {

void appendUnsigned(std::wstring& out, uint64_t n) {
    wchar_t digits[20];
    wchar_t* p = digits + 20;
    do {
        *--p = static_cast<wchar_t>(L'0' + n % 10);
        n /= 10;
    } while (n);
    out.append(p, static_cast<size_t>(digits + 20 - p));
}

void appendSigned(std::wstring& out, int64_t n) {
    if (n < 0) out += L'-';
    appendUnsigned(out, n < 0 ? 0 - static_cast<uint64_t>(n) : static_cast<uint64_t>(n));
}

void appendHex(std::wstring& out, uint64_t n) {
    static const wchar_t kDigits[] = L"0123456789abcdef";
    wchar_t digits[16];
    wchar_t* p = digits + 16;
    do {
        *--p = kDigits[n & 0xF];
        n >>= 4;
    } while (n);
    out += L"0x";
    out.append(p, static_cast<size_t>(digits + 16 - p));
}

// "2024-01-31T21:05:07.1234567Z", as the event's XML writes times.
void appendTime(std::wstring& out, const SYSTEMTIME& st, unsigned fraction, int fractionDigits) {
    wchar_t text[40];
    const int n = std::swprintf(text, 40, L"%04u-%02u-%02uT%02u:%02u:%02u.%0*uZ", st.wYear, st.wMonth, st.wDay,
                                st.wHour, st.wMinute, st.wSecond, fractionDigits, fraction);
    if (n > 0) out.append(text, static_cast<size_t>(n));
}

void appendSid(std::wstring& out, const void* sidBytes) {
    const auto* b = static_cast<const unsigned char*>(sidBytes);
    uint64_t authority = 0;
    for (int i = 0; i < 6; ++i) authority = (authority << 8) | b[2 + i];
    out += L"S-";
    appendUnsigned(out, b[0]);
    out += L'-';
    appendUnsigned(out, authority);
    for (unsigned i = 0; i < b[1]; ++i) {
        uint32_t sub;
        std::memcpy(&sub, b + 8 + 4 * i, sizeof sub);
        out += L'-';
        appendUnsigned(out, sub);
    }
}

bool appendElementsText(const EVT_VARIANT& v, std::wstring& out);

}  // namespace

bool appendValueText(const EVT_VARIANT& v, std::wstring& out) {
    if (v.Type & EVT_VARIANT_TYPE_ARRAY) return appendElementsText(v, out);
    wchar_t text[64];
    switch (v.Type) {
    case EvtVarTypeString:
    case EvtVarTypeEvtXml:
        if (!v.StringVal || !v.StringVal[0]) return false;
        out += v.StringVal;
        return true;
    case EvtVarTypeAnsiString: {
        if (!v.AnsiStringVal || !v.AnsiStringVal[0]) return false;
        const int n = ::MultiByteToWideChar(CP_ACP, 0, v.AnsiStringVal, -1, nullptr, 0);
        if (n <= 1) return false;
        const size_t at = out.size();
        out.resize(at + static_cast<size_t>(n));
        ::MultiByteToWideChar(CP_ACP, 0, v.AnsiStringVal, -1, &out[at], n);
        out.pop_back();  // the terminator
        return true;
    }
    case EvtVarTypeSByte: appendSigned(out, v.SByteVal); return true;
    case EvtVarTypeByte: appendUnsigned(out, v.ByteVal); return true;
    case EvtVarTypeInt16: appendSigned(out, v.Int16Val); return true;
    case EvtVarTypeUInt16: appendUnsigned(out, v.UInt16Val); return true;
    case EvtVarTypeInt32: appendSigned(out, v.Int32Val); return true;
    case EvtVarTypeUInt32: appendUnsigned(out, v.UInt32Val); return true;
    case EvtVarTypeInt64: appendSigned(out, v.Int64Val); return true;
    case EvtVarTypeUInt64: appendUnsigned(out, v.UInt64Val); return true;
    case EvtVarTypeHexInt32: appendHex(out, v.UInt32Val); return true;
    case EvtVarTypeHexInt64: appendHex(out, v.UInt64Val); return true;
    case EvtVarTypeSizeT: appendHex(out, v.SizeTVal); return true;
    case EvtVarTypeBoolean: out += v.BooleanVal ? L"true" : L"false"; return true;
    case EvtVarTypeSingle:
    case EvtVarTypeDouble: {
        const int n = std::swprintf(text, 64, L"%g", v.Type == EvtVarTypeSingle ? v.SingleVal : v.DoubleVal);
        if (n <= 0) return false;
        out.append(text, static_cast<size_t>(n));
        return true;
    }
    case EvtVarTypeGuid: {
        if (!v.GuidVal) return false;
        const GUID& g = *v.GuidVal;
        const int n = std::swprintf(text, 64, L"{%08lX-%04hX-%04hX-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                                    static_cast<unsigned long>(g.Data1), g.Data2, g.Data3, g.Data4[0], g.Data4[1],
                                    g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
        if (n <= 0) return false;
        out.append(text, static_cast<size_t>(n));
        return true;
    }
    case EvtVarTypeSid:
        if (!v.SidVal || !::IsValidSid(v.SidVal)) return false;
        appendSid(out, v.SidVal);
        return true;
    case EvtVarTypeFileTime: {
        FILETIME ft;
        ft.dwLowDateTime = static_cast<DWORD>(v.FileTimeVal);
        ft.dwHighDateTime = static_cast<DWORD>(v.FileTimeVal >> 32);
        SYSTEMTIME st;
        if (!::FileTimeToSystemTime(&ft, &st)) return false;
        appendTime(out, st, static_cast<unsigned>(v.FileTimeVal % 10000000), 7);
        return true;
    }
    case EvtVarTypeSysTime:
        if (!v.SysTimeVal) return false;
        appendTime(out, *v.SysTimeVal, v.SysTimeVal->wMilliseconds, 3);
        return true;
    case EvtVarTypeBinary: {
        if (!v.BinaryVal || v.Count == 0) return false;
        static const wchar_t kDigits[] = L"0123456789ABCDEF";
        for (DWORD i = 0; i < v.Count; ++i) {
            out += kDigits[v.BinaryVal[i] >> 4];
            out += kDigits[v.BinaryVal[i] & 0xF];
        }
        return true;
    }
    default: return false;
    }
}

namespace {

// An array value: its elements joined by ", ".
bool appendElementsText(const EVT_VARIANT& v, std::wstring& out) {
    const DWORD type = v.Type & EVT_VARIANT_TYPE_MASK;
    size_t size = 0;
    switch (type) {
    case EvtVarTypeSByte: case EvtVarTypeByte: size = 1; break;
    case EvtVarTypeInt16: case EvtVarTypeUInt16: size = 2; break;
    case EvtVarTypeInt32: case EvtVarTypeUInt32: case EvtVarTypeHexInt32: case EvtVarTypeBoolean: case EvtVarTypeSingle:
        size = 4;
        break;
    case EvtVarTypeInt64: case EvtVarTypeUInt64: case EvtVarTypeHexInt64: case EvtVarTypeDouble:
    case EvtVarTypeFileTime: case EvtVarTypeSizeT:
        size = 8;
        break;
    default: break;
    }
    bool any = false;
    for (DWORD i = 0; i < v.Count && v.ByteArr; ++i) {
        EVT_VARIANT e = {};
        e.Type = type;
        if (size) std::memcpy(&e, v.ByteArr + i * size, size);
        else if (type == EvtVarTypeString) e.StringVal = v.StringArr[i];
        else if (type == EvtVarTypeAnsiString) e.AnsiStringVal = v.AnsiStringArr[i];
        else if (type == EvtVarTypeGuid) e.GuidVal = v.GuidArr + i;
        else if (type == EvtVarTypeSid) e.SidVal = v.SidArr[i];
        else if (type == EvtVarTypeSysTime) e.SysTimeVal = v.SysTimeArr + i;
        else if (type == EvtVarTypeEvtXml) e.XmlVal = v.XmlValArr[i];
        else return any;
        const size_t mark = out.size();
        if (any) out += L", ";
        if (appendValueText(e, out)) any = true;
        else out.resize(mark);
    }
    return any;
}

}  // namespace

}  // namespace skorva
