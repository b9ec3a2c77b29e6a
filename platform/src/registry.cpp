// The registry: an in-memory key tree with handles, and its text format.
//
// Keys and values are found by name without regard to case (ASCII letters
// only are folded). One recursive lock guards the tree and the handle table;
// RtlQueryRegistryValues holds it for the whole query and gives each query
// routine a copy of the value's data, so that a routine may write the
// registry itself.
#include <kplat/platform.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>

#include "internal.h"

using namespace kplat_internal;

namespace {

struct Value {
    ULONG type = REG_NONE;
    std::vector<uint8_t> data;
};

struct Key {
    std::map<std::u16string, std::shared_ptr<Key>> subkeys;  // by folded name
    std::map<std::u16string, Value> values;                   // by folded name
};

struct OpenKey {
    std::shared_ptr<Key> key;  // keeps a key alive after RegistryClear
    ACCESS_MASK access;
};

struct Registry {
    std::recursive_mutex lock;
    std::shared_ptr<Key> root = std::make_shared<Key>();
    std::map<uintptr_t, OpenKey> handles;
    // Kernel handles look like this on x64; values are never reused, so a
    // closed handle stays invalid.
    uintptr_t nextHandle = 0xFFFFFFFF80000004ull;
};

Registry& R() {
    static Registry* registry = new Registry;
    return *registry;
}

using Lock = std::lock_guard<std::recursive_mutex>;

const char16_t kServicesPath[] = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\";

std::u16string Fold(const std::u16string& s) {
    std::u16string out = s;
    for (char16_t& c : out)
        if (c >= u'A' && c <= u'Z') c = (char16_t)(c - u'A' + u'a');
    return out;
}

std::vector<std::u16string> SplitPath(const std::u16string& path) {
    std::vector<std::u16string> parts;
    std::u16string part;
    for (char16_t c : path) {
        if (c == u'\\') {
            if (!part.empty()) parts.push_back(Fold(part));
            part.clear();
        } else {
            part += c;
        }
    }
    if (!part.empty()) parts.push_back(Fold(part));
    return parts;
}

// Walks from `base` along `path`; with `create`, missing keys are made and
// *created tells whether the last one was.
std::shared_ptr<Key> Walk(std::shared_ptr<Key> base, const std::u16string& path, bool create,
                          bool* created = nullptr) {
    if (created) *created = false;
    for (const std::u16string& part : SplitPath(path)) {
        auto it = base->subkeys.find(part);
        if (it != base->subkeys.end()) {
            base = it->second;
            if (created) *created = false;
            continue;
        }
        if (!create) return nullptr;
        auto key = std::make_shared<Key>();
        base->subkeys[part] = key;
        base = key;
        if (created) *created = true;
    }
    return base;
}

std::u16string FromCounted(const UNICODE_STRING* s) {
    if (s == nullptr || s->Buffer == nullptr) return std::u16string();
    return std::u16string(s->Buffer, s->Length / sizeof(WCHAR));
}

std::u16string FromUtf8(const std::string& s) {
    std::u16string out;
    for (size_t i = 0; i < s.size();) {
        uint8_t c = (uint8_t)s[i];
        uint32_t cp;
        size_t n;
        if (c < 0x80) {
            cp = c;
            n = 1;
        } else if ((c & 0xE0) == 0xC0) {
            cp = c & 0x1F;
            n = 2;
        } else if ((c & 0xF0) == 0xE0) {
            cp = c & 0x0F;
            n = 3;
        } else {
            cp = c & 0x07;
            n = 4;
        }
        for (size_t k = 1; k < n && i + k < s.size(); k++) cp = (cp << 6) | ((uint8_t)s[i + k] & 0x3F);
        i += n;
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out += (char16_t)(0xD800 + (cp >> 10));
            out += (char16_t)(0xDC00 + (cp & 0x3FF));
        } else {
            out += (char16_t)cp;
        }
    }
    return out;
}

std::vector<uint8_t> StringData(const std::u16string& s) {
    std::vector<uint8_t> data((s.size() + 1) * sizeof(char16_t), 0);
    memcpy(data.data(), s.data(), s.size() * sizeof(char16_t));
    return data;
}

bool AtPassive(const char* what) {
    KIRQL irql = CurrentIrql();
    if (irql == PASSIVE_LEVEL) return true;
    char text[120];
    snprintf(text, sizeof text, "%s at IRQL %u (PASSIVE_LEVEL only)", what, irql);
    CheckFailed(IRQL_NOT_LESS_OR_EQUAL, 0, irql, PASSIVE_LEVEL, 0, text);
    return false;
}

OpenKey* FindHandle(HANDLE handle) {
    auto it = R().handles.find((uintptr_t)handle);
    return it == R().handles.end() ? nullptr : &it->second;
}

// Resolves the object attributes to the parent to walk from and the path.
NTSTATUS Resolve(POBJECT_ATTRIBUTES attributes, std::shared_ptr<Key>* base, std::u16string* path) {
    if (attributes == nullptr || attributes->ObjectName == nullptr) return STATUS_OBJECT_NAME_INVALID;
    *path = FromCounted(attributes->ObjectName);
    if (attributes->RootDirectory != nullptr) {
        OpenKey* root = FindHandle(attributes->RootDirectory);
        if (root == nullptr) return STATUS_INVALID_HANDLE;
        if (!path->empty() && (*path)[0] == u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
        *base = root->key;
    } else {
        if (path->empty() || (*path)[0] != u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
        *base = R().root;
    }
    return STATUS_SUCCESS;
}

HANDLE NewHandle(std::shared_ptr<Key> key, ACCESS_MASK access) {
    Registry& r = R();
    uintptr_t handle = r.nextHandle;
    r.nextHandle += 4;
    r.handles[handle] = OpenKey{std::move(key), access};
    CountObject(ObjectKind::KeyHandle, +1);
    return (HANDLE)handle;
}

bool IsString(ULONG type) { return type == REG_SZ || type == REG_EXPAND_SZ; }

}  // namespace

// ---------------------------------------------------------------------------
// Zw* and Rtl* operations (PASSIVE_LEVEL only)
// ---------------------------------------------------------------------------
NTSTATUS ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes) {
    *KeyHandle = nullptr;
    if (!AtPassive("ZwOpenKey")) return STATUS_UNSUCCESSFUL;
    Lock lock(R().lock);
    std::shared_ptr<Key> base;
    std::u16string path;
    NTSTATUS status = Resolve(ObjectAttributes, &base, &path);
    if (!NT_SUCCESS(status)) return status;
    std::shared_ptr<Key> key = Walk(base, path, false);
    if (key == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
    *KeyHandle = NewHandle(key, DesiredAccess);
    return STATUS_SUCCESS;
}

// Missing keys on the way are created too. Class, title index and options
// are accepted and ignored.
NTSTATUS ZwCreateKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                     ULONG TitleIndex, PUNICODE_STRING Class, ULONG CreateOptions, PULONG Disposition) {
    (void)TitleIndex;
    (void)Class;
    (void)CreateOptions;
    *KeyHandle = nullptr;
    if (!AtPassive("ZwCreateKey")) return STATUS_UNSUCCESSFUL;
    Lock lock(R().lock);
    std::shared_ptr<Key> base;
    std::u16string path;
    NTSTATUS status = Resolve(ObjectAttributes, &base, &path);
    if (!NT_SUCCESS(status)) return status;
    bool created = false;
    std::shared_ptr<Key> key = Walk(base, path, true, &created);
    *KeyHandle = NewHandle(key, DesiredAccess);
    if (Disposition != nullptr) *Disposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    return STATUS_SUCCESS;
}

NTSTATUS ZwClose(HANDLE Handle) {
    if (!AtPassive("ZwClose")) return STATUS_UNSUCCESSFUL;
    Lock lock(R().lock);
    if (R().handles.erase((uintptr_t)Handle) == 0) return STATUS_INVALID_HANDLE;
    CountObject(ObjectKind::KeyHandle, -1);
    return STATUS_SUCCESS;
}

NTSTATUS ZwSetValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG TitleIndex, ULONG Type, PVOID Data,
                       ULONG DataSize) {
    (void)TitleIndex;
    if (!AtPassive("ZwSetValueKey")) return STATUS_UNSUCCESSFUL;
    Lock lock(R().lock);
    OpenKey* open = FindHandle(KeyHandle);
    if (open == nullptr) return STATUS_INVALID_HANDLE;
    if (!(open->access & KEY_SET_VALUE)) return STATUS_ACCESS_DENIED;
    if (Data == nullptr && DataSize != 0) return STATUS_INVALID_PARAMETER;
    Value& value = open->key->values[Fold(FromCounted(ValueName))];
    value.type = Type;
    value.data.assign((const uint8_t*)Data, (const uint8_t*)Data + DataSize);
    return STATUS_SUCCESS;
}

// Not modelled: RTL_QUERY_REGISTRY_SUBKEY and _TOPKEY (STATUS_INVALID_PARAMETER),
// entries without a Name (value enumeration, STATUS_INVALID_PARAMETER),
// expansion of REG_EXPAND_SZ and the splitting of REG_MULTI_SZ into strings
// (the data is delivered as stored), RTL_QUERY_REGISTRY_DIRECT for anything
// but REG_DWORD (STATUS_OBJECT_TYPE_MISMATCH), the Environment.
NTSTATUS RtlQueryRegistryValues(ULONG RelativeTo, PCWSTR Path, PRTL_QUERY_REGISTRY_TABLE QueryTable,
                                PVOID Context, PVOID Environment) {
    (void)Environment;
    if (!AtPassive("RtlQueryRegistryValues")) return STATUS_UNSUCCESSFUL;
    Registry& r = R();
    Lock lock(r.lock);
    std::shared_ptr<Key> key;
    if (RelativeTo & RTL_REGISTRY_HANDLE) {
        OpenKey* open = FindHandle((HANDLE)Path);
        if (open == nullptr) return STATUS_INVALID_HANDLE;
        if (!(open->access & KEY_QUERY_VALUE)) return STATUS_ACCESS_DENIED;
        key = open->key;
    } else if (RelativeTo == RTL_REGISTRY_ABSOLUTE || RelativeTo == RTL_REGISTRY_SERVICES) {
        if (Path == nullptr) return STATUS_INVALID_PARAMETER;
        std::u16string path = RelativeTo == RTL_REGISTRY_SERVICES ? kServicesPath : u"";
        path += Path;
        if (path[0] != u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
        key = Walk(r.root, path, false);
        if (key == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
    } else {
        return STATUS_INVALID_PARAMETER;
    }

    for (PRTL_QUERY_REGISTRY_TABLE entry = QueryTable;
         entry->QueryRoutine != nullptr || (entry->Flags & (RTL_QUERY_REGISTRY_SUBKEY | RTL_QUERY_REGISTRY_DIRECT));
         entry++) {
        if ((entry->Flags & (RTL_QUERY_REGISTRY_SUBKEY | RTL_QUERY_REGISTRY_TOPKEY)) || entry->Name == nullptr)
            return STATUS_INVALID_PARAMETER;
        ULONG type;
        std::vector<uint8_t> data;  // the copy the routine receives
        auto it = key->values.find(Fold(entry->Name));
        if (it != key->values.end()) {
            type = it->second.type;
            data = it->second.data;
        } else if (entry->Flags & RTL_QUERY_REGISTRY_REQUIRED) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        } else if (entry->DefaultType == REG_NONE) {
            continue;
        } else {
            type = entry->DefaultType;
            ULONG length = entry->DefaultLength;
            if (length == 0 && IsString(type) && entry->DefaultData != nullptr)
                length = (ULONG)((std::char_traits<char16_t>::length((const char16_t*)entry->DefaultData) + 1) *
                                 sizeof(char16_t));
            if (entry->DefaultData != nullptr)
                data.assign((const uint8_t*)entry->DefaultData, (const uint8_t*)entry->DefaultData + length);
        }
        // Strings are handed over with their terminating zero.
        if (IsString(type)) {
            if (data.size() % 2) data.push_back(0);
            if (data.size() < 2 || data[data.size() - 1] != 0 || data[data.size() - 2] != 0) {
                data.push_back(0);
                data.push_back(0);
            }
        }
        if (entry->Flags & RTL_QUERY_REGISTRY_DIRECT) {
            if (type != REG_DWORD) return STATUS_OBJECT_TYPE_MISMATCH;
            if (entry->EntryContext == nullptr) return STATUS_INVALID_PARAMETER;
            memcpy(entry->EntryContext, data.data(), data.size() < 4 ? data.size() : 4);
            continue;
        }
        NTSTATUS status = entry->QueryRoutine(entry->Name, type, data.empty() ? nullptr : data.data(),
                                              (ULONG)data.size(), Context, entry->EntryContext);
        if (!NT_SUCCESS(status)) return status;
    }
    return STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// Text format and direct access
// ---------------------------------------------------------------------------
namespace {

struct LoadItem {
    bool isKey;
    std::u16string path;  // the key, for both kinds
    std::u16string name;
    Value value;
};

class TextParser {
public:
    explicit TextParser(const std::string& line) : mLine(line) {}

    bool AtEnd() const { return mPos >= mLine.size(); }
    char Peek() const { return AtEnd() ? '\0' : mLine[mPos]; }
    void SkipBlanks() {
        while (!AtEnd() && (mLine[mPos] == ' ' || mLine[mPos] == '\t')) mPos++;
    }
    bool Take(const char* literal) {
        size_t n = strlen(literal);
        if (mLine.compare(mPos, n, literal) != 0) return false;
        mPos += n;
        return true;
    }
    // A quoted string with the escapes \\ and \"; the opening quote is next.
    bool Quoted(std::string* out, std::string* why) {
        mPos++;
        while (!AtEnd()) {
            char c = mLine[mPos++];
            if (c == '"') return true;
            if (c == '\\') {
                if (AtEnd() || (mLine[mPos] != '\\' && mLine[mPos] != '"')) {
                    *why = "unknown escape in a string (only \\\\ and \\\")";
                    return false;
                }
                c = mLine[mPos++];
            }
            *out += c;
        }
        *why = "string without its closing quote";
        return false;
    }
    std::string Rest() const { return mLine.substr(mPos); }

private:
    const std::string& mLine;
    size_t mPos = 0;
};

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool ParseValue(TextParser& p, Value* value, std::string* why) {
    if (p.Peek() == '"') {
        std::string text;
        if (!p.Quoted(&text, why)) return false;
        value->type = REG_SZ;
        value->data = StringData(FromUtf8(text));
    } else if (p.Take("dword:")) {
        std::string digits = p.Rest();
        while (!digits.empty() && (digits.back() == ' ' || digits.back() == '\t')) digits.pop_back();
        if (digits.empty() || digits.size() > 8) {
            *why = "dword: needs 1 to 8 hexadecimal digits";
            return false;
        }
        uint32_t v = 0;
        for (char c : digits) {
            if (HexDigit(c) < 0) {
                *why = "dword: needs 1 to 8 hexadecimal digits";
                return false;
            }
            v = v << 4 | (uint32_t)HexDigit(c);
        }
        value->type = REG_DWORD;
        value->data = {(uint8_t)v, (uint8_t)(v >> 8), (uint8_t)(v >> 16), (uint8_t)(v >> 24)};
        return true;
    } else if (p.Take("hex:")) {
        value->type = REG_BINARY;
        std::string rest = p.Rest();
        std::string byte;
        bool any = false;
        for (size_t i = 0; i <= rest.size(); i++) {
            char c = i < rest.size() ? rest[i] : ',';
            if (c == ' ' || c == '\t') continue;
            if (c != ',') {
                byte += c;
                continue;
            }
            if (byte.empty() && i == rest.size() && !any) break;  // "hex:" alone: no bytes
            if (byte.size() != 2 || HexDigit(byte[0]) < 0 || HexDigit(byte[1]) < 0) {
                *why = "hex: needs two-digit hexadecimal bytes separated by commas";
                return false;
            }
            value->data.push_back((uint8_t)(HexDigit(byte[0]) << 4 | HexDigit(byte[1])));
            byte.clear();
            any = true;
        }
        return true;
    } else {
        *why = "unknown value: expected \"string\", dword: or hex:";
        return false;
    }
    p.SkipBlanks();
    if (!p.AtEnd()) {
        *why = "unexpected text after the value";
        return false;
    }
    return true;
}

// Parses one line; appends to `items`. `key` is the current key path.
bool ParseLine(const std::string& line, std::u16string* key, std::vector<LoadItem>* items, std::string* why) {
    TextParser p(line);
    p.SkipBlanks();
    if (p.AtEnd() || p.Peek() == ';') return true;
    if (p.Peek() == '[') {
        std::string rest = p.Rest();
        while (!rest.empty() && (rest.back() == ' ' || rest.back() == '\t')) rest.pop_back();
        if (rest.back() != ']') {
            *why = "key line without its closing ]";
            return false;
        }
        std::string path = rest.substr(1, rest.size() - 2);
        if (path.empty() || path[0] != '\\') {
            *why = "key path must start with \\";
            return false;
        }
        *key = FromUtf8(path);
        items->push_back(LoadItem{true, *key, u"", Value()});
        return true;
    }
    std::string name;
    if (p.Take("@")) {
        // the key's default value: empty name
    } else if (p.Peek() == '"') {
        if (!p.Quoted(&name, why)) return false;
    } else {
        *why = "expected [key], \"name\"=value, @=value or a ; comment";
        return false;
    }
    if (key->empty()) {
        *why = "value before the first [key]";
        return false;
    }
    p.SkipBlanks();
    if (!p.Take("=")) {
        *why = "expected = after the value name";
        return false;
    }
    p.SkipBlanks();
    LoadItem item{false, *key, FromUtf8(name), Value()};
    if (!ParseValue(p, &item.value, why)) return false;
    items->push_back(std::move(item));
    return true;
}

bool ParsePath(const std::string& keyPath, std::u16string* path) {
    *path = FromUtf8(keyPath);
    return !path->empty() && (*path)[0] == u'\\';
}

}  // namespace

namespace kplat {

// Nothing is changed unless the whole text is valid.
NTSTATUS RegistryLoadText(const std::string& text, std::string* error) {
    std::vector<LoadItem> items;
    std::u16string key;
    std::istringstream in(text);
    std::string line;
    for (unsigned number = 1; std::getline(in, line); number++) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        std::string why;
        if (!ParseLine(line, &key, &items, &why)) {
            if (error != nullptr) *error = "line " + std::to_string(number) + ": " + why;
            return STATUS_INVALID_PARAMETER;
        }
    }
    Registry& r = R();
    Lock lock(r.lock);
    for (LoadItem& item : items) {
        std::shared_ptr<Key> k = Walk(r.root, item.path, true);
        if (!item.isKey) k->values[Fold(item.name)] = std::move(item.value);
    }
    if (error != nullptr) error->clear();
    return STATUS_SUCCESS;
}

NTSTATUS RegistryLoadFile(const char* path, std::string* error) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        if (error != nullptr) *error = std::string(path) + ": cannot be opened";
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    std::stringstream text;
    text << file.rdbuf();
    NTSTATUS status = RegistryLoadText(text.str(), error);
    if (!NT_SUCCESS(status) && error != nullptr) *error = std::string(path) + ": " + *error;
    return status;
}

// Open handles stay valid; they refer to keys no longer in the tree.
void RegistryClear() {
    Registry& r = R();
    Lock lock(r.lock);
    r.root = std::make_shared<Key>();
}

bool RegistryGetValue(const std::string& keyPath, const std::string& valueName, ULONG* type,
                      std::vector<uint8_t>* data) {
    std::u16string path;
    if (!ParsePath(keyPath, &path)) return false;
    Registry& r = R();
    Lock lock(r.lock);
    std::shared_ptr<Key> key = Walk(r.root, path, false);
    if (key == nullptr) return false;
    auto it = key->values.find(Fold(FromUtf8(valueName)));
    if (it == key->values.end()) return false;
    if (type != nullptr) *type = it->second.type;
    if (data != nullptr) *data = it->second.data;
    return true;
}

bool RegistryGetDword(const std::string& keyPath, const std::string& valueName, uint32_t* value) {
    ULONG type;
    std::vector<uint8_t> data;
    if (!RegistryGetValue(keyPath, valueName, &type, &data) || type != REG_DWORD || data.size() != 4) return false;
    *value = (uint32_t)data[0] | (uint32_t)data[1] << 8 | (uint32_t)data[2] << 16 | (uint32_t)data[3] << 24;
    return true;
}

namespace {
void SetValue(const std::string& keyPath, const std::string& valueName, ULONG type, std::vector<uint8_t> data) {
    std::u16string path;
    if (!ParsePath(keyPath, &path)) return;
    Registry& r = R();
    Lock lock(r.lock);
    Value& value = Walk(r.root, path, true)->values[Fold(FromUtf8(valueName))];
    value.type = type;
    value.data = std::move(data);
}
}  // namespace

void RegistrySetDword(const std::string& keyPath, const std::string& valueName, uint32_t value) {
    SetValue(keyPath, valueName, REG_DWORD,
             {(uint8_t)value, (uint8_t)(value >> 8), (uint8_t)(value >> 16), (uint8_t)(value >> 24)});
}

void RegistrySetString(const std::string& keyPath, const std::string& valueName, const std::string& value) {
    SetValue(keyPath, valueName, REG_SZ, StringData(FromUtf8(value)));
}

}  // namespace kplat
