// rtl.cpp - the run-time library on the bench: counted strings, ANSI to
// Unicode conversion, case-insensitive comparison, and the bounded copy and
// wide formatting of ntstrsafe with their rules: capacity in bytes from 1 to
// NTSTRSAFE_MAX_CCH, at most capacity - 1 characters, always terminated, a cut
// result reported as STATUS_BUFFER_OVERFLOW.
#include "bench.h"
#include "irql_rules.h"

#include <cstdarg>
#include <cstdio>

namespace korvanel::bench {

std::string to_utf8(const std::u16string& s)
{
    std::string out;
    for (size_t i = 0; i < s.size(); i++) {
        uint32_t c = s[i];
        if (c >= 0xD800 && c < 0xDC00 && i + 1 < s.size() && s[i + 1] >= 0xDC00 && s[i + 1] < 0xE000) {
            c = 0x10000 + ((c - 0xD800) << 10) + (s[++i] - 0xDC00);
        }
        if (c < 0x80) {
            out += char(c);
        } else if (c < 0x800) {
            out += char(0xC0 | (c >> 6));
            out += char(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += char(0xE0 | (c >> 12));
            out += char(0x80 | ((c >> 6) & 0x3F));
            out += char(0x80 | (c & 0x3F));
        } else {
            out += char(0xF0 | (c >> 18));
            out += char(0x80 | ((c >> 12) & 0x3F));
            out += char(0x80 | ((c >> 6) & 0x3F));
            out += char(0x80 | (c & 0x3F));
        }
    }
    return out;
}

std::u16string to_utf16(const std::string& s)
{
    std::u16string out;
    for (size_t i = 0; i < s.size();) {
        auto b = uint8_t(s[i]);
        uint32_t c;
        int extra = b < 0x80 ? 0 : b < 0xE0 ? 1 : b < 0xF0 ? 2 : 3;
        c = extra == 0 ? b : extra == 1 ? (b & 0x1F) : extra == 2 ? (b & 0x0F) : (b & 0x07);
        for (int k = 1; k <= extra && i + k < s.size(); k++) {
            c = (c << 6) | (uint8_t(s[i + k]) & 0x3F);
        }
        i += 1 + extra;
        if (c >= 0x10000) {
            c -= 0x10000;
            out += char16_t(0xD800 + (c >> 10));
            out += char16_t(0xDC00 + (c & 0x3FF));
        } else {
            out += char16_t(c);
        }
    }
    return out;
}

namespace {

const std::pair<NTSTATUS, const char*> kStatusNames[] = {
    {STATUS_SUCCESS, "STATUS_SUCCESS"},
    {STATUS_USER_APC, "STATUS_USER_APC"},
    {STATUS_ALERTED, "STATUS_ALERTED"},
    {STATUS_TIMEOUT, "STATUS_TIMEOUT"},
    {STATUS_PENDING, "STATUS_PENDING"},
    {STATUS_NOTIFY_CLEANUP, "STATUS_NOTIFY_CLEANUP"},
    {STATUS_BUFFER_OVERFLOW, "STATUS_BUFFER_OVERFLOW"},
    {STATUS_DEVICE_BUSY, "STATUS_DEVICE_BUSY"},
    {STATUS_UNSUCCESSFUL, "STATUS_UNSUCCESSFUL"},
    {STATUS_NOT_IMPLEMENTED, "STATUS_NOT_IMPLEMENTED"},
    {STATUS_INFO_LENGTH_MISMATCH, "STATUS_INFO_LENGTH_MISMATCH"},
    {STATUS_INVALID_HANDLE, "STATUS_INVALID_HANDLE"},
    {STATUS_INVALID_PARAMETER, "STATUS_INVALID_PARAMETER"},
    {STATUS_INVALID_PARAMETER_2, "STATUS_INVALID_PARAMETER_2"},
    {STATUS_NO_MEMORY, "STATUS_NO_MEMORY"},
    {STATUS_NO_SUCH_DEVICE, "STATUS_NO_SUCH_DEVICE"},
    {STATUS_INVALID_DEVICE_REQUEST, "STATUS_INVALID_DEVICE_REQUEST"},
    {STATUS_ACCESS_DENIED, "STATUS_ACCESS_DENIED"},
    {STATUS_BUFFER_TOO_SMALL, "STATUS_BUFFER_TOO_SMALL"},
    {STATUS_OBJECT_NAME_NOT_FOUND, "STATUS_OBJECT_NAME_NOT_FOUND"},
    {STATUS_INSUFFICIENT_RESOURCES, "STATUS_INSUFFICIENT_RESOURCES"},
    {STATUS_DEVICE_NOT_CONNECTED, "STATUS_DEVICE_NOT_CONNECTED"},
    {STATUS_IO_TIMEOUT, "STATUS_IO_TIMEOUT"},
    {STATUS_NOT_SUPPORTED, "STATUS_NOT_SUPPORTED"},
    {STATUS_CANCELLED, "STATUS_CANCELLED"},
    {STATUS_INVALID_DEVICE_STATE, "STATUS_INVALID_DEVICE_STATE"},
    {STATUS_NAME_TOO_LONG, "STATUS_NAME_TOO_LONG"},
    {STATUS_DEVICE_PROTOCOL_ERROR, "STATUS_DEVICE_PROTOCOL_ERROR"},
};

}  // namespace

std::string status_name(NTSTATUS status)
{
    for (auto& [value, name] : kStatusNames) {
        if (value == status) {
            return name;
        }
    }
    char text[16];
    snprintf(text, sizeof text, "0x%08X", uint32_t(status));
    return text;
}

std::optional<NTSTATUS> status_value(const std::string& name)
{
    for (auto& [value, known] : kStatusNames) {
        if (name == known) {
            return value;
        }
    }
    return std::nullopt;
}

std::string guid_text(const GUID& g)
{
    char text[40];
    snprintf(text, sizeof text, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", g.Data1, g.Data2, g.Data3,
             g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    return text;
}

namespace {

constexpr ULONG kStringTag = 0x67727453;  // "Strg": the run-time library's own strings

template <typename C>
size_t length_of(const C* s)
{
    size_t n = 0;
    while (s[n] != 0) {
        n++;
    }
    return n;
}

// Copies `text` into a destination of `capacity` characters with the bounded
// rules; returns the status.
template <typename C>
NTSTATUS bounded_store(C* dest, size_t capacity, const std::basic_string<C>& text)
{
    if (text.size() < capacity) {
        memcpy(dest, text.data(), text.size() * sizeof(C));
        dest[text.size()] = 0;
        return STATUS_SUCCESS;
    }
    memcpy(dest, text.data(), (capacity - 1) * sizeof(C));
    dest[capacity - 1] = 0;
    return STATUS_BUFFER_OVERFLOW;
}

// A small printf for UTF-16 formats: flags '0' and '-', a width or '*' (a
// negative one left-justifies), the size prefixes I64, ll, l, h and w, and the
// conversions d i u x X c s S %. As in the kernel's wide printf, %s, %ls and
// %ws take UTF-16 text, %S and %hs 8-bit text.
std::u16string format_wide(const WCHAR* format, va_list args)
{
    std::u16string out;
    for (const WCHAR* p = format; *p; p++) {
        if (*p != u'%') {
            out += *p;
            continue;
        }
        p++;
        if (*p == u'%') {
            out += u'%';
            continue;
        }
        bool zero = false, left = false;
        for (;; p++) {
            if (*p == u'0') {
                zero = true;
            } else if (*p == u'-') {
                left = true;
            } else {
                break;
            }
        }
        int width = 0;
        if (*p == u'*') {
            width = va_arg(args, int);
            if (width < 0) {
                left = true;
                width = -width;
            }
            p++;
        } else {
            while (*p >= u'0' && *p <= u'9') {
                width = width * 10 + (*p++ - u'0');
            }
        }
        bool wide64 = false;
        WCHAR text_size = 0;  // 'h' or 'w' (from h, l, w), or 0
        if (p[0] == u'I' && p[1] == u'6' && p[2] == u'4') {
            wide64 = true;
            p += 3;
        } else if (p[0] == u'l' && p[1] == u'l') {
            wide64 = true;
            p += 2;
        } else if (*p == u'h' || *p == u'l' || *p == u'w') {
            text_size = *p == u'h' ? u'h' : u'w';
            p++;
        }
        std::u16string field;
        char digits[32];
        switch (*p) {
        case u'd':
        case u'i':
            snprintf(digits, sizeof digits, "%lld", wide64 ? (long long)va_arg(args, int64_t) : va_arg(args, int));
            field = to_utf16(digits);
            break;
        case u'u':
        case u'x':
        case u'X': {
            unsigned long long v = wide64 ? va_arg(args, uint64_t) : va_arg(args, unsigned);
            snprintf(digits, sizeof digits, *p == u'u' ? "%llu" : *p == u'x' ? "%llx" : "%llX", v);
            field = to_utf16(digits);
            break;
        }
        case u'c':
            field = char16_t(va_arg(args, int));
            break;
        case u's':
        case u'S': {
            if (text_size == u'w' || (*p == u's' && text_size == 0)) {
                auto* s = va_arg(args, const WCHAR*);
                field = s ? std::u16string(s) : u"(null)";
            } else {
                auto* s = va_arg(args, const char*);
                field = to_utf16(s ? s : "(null)");
            }
            zero = false;
            break;
        }
        default:
            return out;  // an unknown conversion ends the output
        }
        if (int(field.size()) < width) {
            size_t pad = width - field.size();
            if (left) {
                field.append(pad, u' ');
            } else if (zero) {
                field.insert(field[0] == u'-' ? 1 : 0, pad, u'0');  // zeros go after the sign
            } else {
                field.insert(0, pad, u' ');
            }
        }
        out += field;
    }
    return out;
}

}  // namespace
}  // namespace korvanel::bench

using korvanel::bench::Bench;

VOID RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("RtlInitAnsiString"));
    size_t n = SourceString ? korvanel::bench::length_of(SourceString) : 0;
    DestinationString->Buffer = const_cast<PCHAR>(SourceString);
    DestinationString->Length = USHORT(n);
    DestinationString->MaximumLength = SourceString ? USHORT(n + 1) : 0;
}

VOID RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("RtlInitUnicodeString"));
    size_t n = SourceString ? korvanel::bench::length_of(SourceString) : 0;
    DestinationString->Buffer = const_cast<PWSTR>(SourceString);
    DestinationString->Length = USHORT(n * sizeof(WCHAR));
    DestinationString->MaximumLength = SourceString ? USHORT((n + 1) * sizeof(WCHAR)) : 0;
}

NTSTATUS RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString, PCANSI_STRING SourceString,
                                      BOOLEAN AllocateDestinationString)
{
    NTSTATUS injected = KORVANEL_ENTRY(korvanel::bench::irql_rule("RtlAnsiStringToUnicodeString"));
    if (DestinationString == nullptr || SourceString == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    auto& sys = Bench::current();
    if (!NT_SUCCESS(injected)) {
        return injected;
    }
    // As Windows: the result with its terminator must fit a counted string,
    // and a caller's buffer must hold more than the characters.
    size_t chars = SourceString->Length;
    size_t bytes = (chars + 1) * sizeof(WCHAR);
    if (bytes > 0xFFFF) {
        return STATUS_INVALID_PARAMETER_2;
    }
    if (AllocateDestinationString) {
        auto* buffer = static_cast<PWSTR>(sys.pool().allocate(PagedPool, bytes, korvanel::bench::kStringTag, __builtin_return_address(0)));
        if (buffer == nullptr) {
            return STATUS_NO_MEMORY;
        }
        DestinationString->Buffer = buffer;
        DestinationString->MaximumLength = USHORT(bytes);
    } else if (chars * sizeof(WCHAR) >= DestinationString->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    for (size_t i = 0; i < chars; i++) {
        DestinationString->Buffer[i] = WCHAR(uint8_t(SourceString->Buffer[i]));
    }
    DestinationString->Length = USHORT(chars * sizeof(WCHAR));
    if (DestinationString->MaximumLength >= bytes) {
        DestinationString->Buffer[chars] = 0;
    }
    return STATUS_SUCCESS;
}

VOID RtlFreeUnicodeString(PUNICODE_STRING UnicodeString)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("RtlFreeUnicodeString"));
    if (UnicodeString != nullptr && UnicodeString->Buffer != nullptr) {
        Bench::current().pool().free_checked(UnicodeString->Buffer, korvanel::bench::kStringTag,
                                              "RtlFreeUnicodeString", __builtin_return_address(0));
        UnicodeString->Buffer = nullptr;
        UnicodeString->Length = UnicodeString->MaximumLength = 0;
    }
}

VOID RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("RtlCopyUnicodeString"));
    // "The DestinationString and SourceString buffers must be resident if the
    // caller is running at IRQL >= DISPATCH_LEVEL": a paged one faults there.
    if (korvanel::bench::verifier::irql() >= DISPATCH_LEVEL) {
        auto& pool = Bench::current().pool();
        for (PCUNICODE_STRING string : {PCUNICODE_STRING(DestinationString), SourceString}) {
            if (string != nullptr && string->Buffer != nullptr &&
                pool.in_paged_pool(string->Buffer, string->MaximumLength)) {
                korvanel::bench::verifier::violate_at_level(
                    korvanel::bench::stops::kIrqlNotLessOrEqual, "RtlCopyUnicodeString", __builtin_return_address(0),
                    "RtlCopyUnicodeString of a string in paged pool above APC_LEVEL", APC_LEVEL);
            }
        }
    }
    if (SourceString == nullptr || SourceString->Buffer == nullptr) {
        DestinationString->Length = 0;
        return;
    }
    USHORT n = std::min(SourceString->Length, DestinationString->MaximumLength);
    memmove(DestinationString->Buffer, SourceString->Buffer, n);
    DestinationString->Length = n;
    if (n + sizeof(WCHAR) <= DestinationString->MaximumLength) {
        DestinationString->Buffer[n / sizeof(WCHAR)] = 0;
    }
}

int _wcsicmp(const WCHAR* string1, const WCHAR* string2)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("_wcsicmp"));
    auto fold = [](WCHAR c) { return c >= u'A' && c <= u'Z' ? WCHAR(c - u'A' + u'a') : c; };
    for (;; string1++, string2++) {
        WCHAR a = fold(*string1), b = fold(*string2);
        if (a != b || a == 0) {
            return int(a) - int(b);
        }
    }
}

NTSTATUS RtlStringCbCopyA(PSTR pszDest, SIZE_T cbDest, PCSTR pszSrc)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("RtlStringCbCopyA"));
    // A rejected destination still becomes the empty string where it has room.
    if (cbDest == 0 || cbDest > NTSTRSAFE_MAX_CCH) {
        if (cbDest != 0 && pszDest != nullptr) {
            pszDest[0] = 0;
        }
        return STATUS_INVALID_PARAMETER;
    }
    // Copied in place: the camera driver's module query copies six texts.
    // A text that does not fit is cut and still terminated.
    const char* from = pszSrc ? pszSrc : "";
    SIZE_T i = 0;
    for (; i + 1 < cbDest && from[i] != 0; i++) {
        pszDest[i] = from[i];
    }
    pszDest[i] = 0;
    return from[i] == 0 ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
}

NTSTATUS RtlStringCbPrintfW(PWSTR pszDest, SIZE_T cbDest, PCWSTR pszFormat, ...)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("RtlStringCbPrintfW"));
    size_t capacity = cbDest / sizeof(WCHAR);
    if (capacity == 0 || capacity > NTSTRSAFE_MAX_CCH) {
        if (capacity != 0 && pszDest != nullptr) {
            pszDest[0] = 0;
        }
        return STATUS_INVALID_PARAMETER;
    }
    if (pszFormat == nullptr) {
        pszDest[0] = 0;
        return STATUS_INVALID_PARAMETER;
    }
    va_list args;
    va_start(args, pszFormat);
    std::u16string text = korvanel::bench::format_wide(pszFormat, args);
    va_end(args);
    return korvanel::bench::bounded_store(pszDest, capacity, text);
}

NTSTATUS RtlGetVersion(PRTL_OSVERSIONINFOW lpVersionInformation)
{
    KORVANEL_ENTRY(korvanel::bench::irql_rule("RtlGetVersion"));
    if (lpVersionInformation == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    auto& sys = Bench::current();
    lpVersionInformation->dwMajorVersion = sys.os_major_version();
    lpVersionInformation->dwMinorVersion = 0;
    lpVersionInformation->dwBuildNumber = sys.os_major_version() >= 10 ? 19041 : 2600;
    lpVersionInformation->dwPlatformId = 2;
    lpVersionInformation->szCSDVersion[0] = 0;
    return STATUS_SUCCESS;
}
