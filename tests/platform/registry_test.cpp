// The registry of the stand-in: keys and handles, access rights, value
// queries, and the text format.
#include <gtest/gtest.h>
#include <kplat/platform.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

const char kService[] = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\ethbrg";

class Registry : public ::testing::Test {
protected:
    void SetUp() override {
        kplat::RegistryClear();
        mHandlesBefore = kplat::GetObjectCounts().keyHandles;
        std::string error;
        ASSERT_EQ(STATUS_SUCCESS, kplat::RegistryLoadText(std::string("[") + kService + "]\n"
                                                                  "\"TraceMask\"=dword:00000003\n"
                                                                  "\"Name\"=\"ethbrg\"\n",
                                                          &error))
            << error;
    }
    void TearDown() override {
        EXPECT_EQ(mHandlesBefore, kplat::GetObjectCounts().keyHandles);
        kplat::RegistryClear();
    }

    static NTSTATUS Open(const char16_t* path, ACCESS_MASK access, HANDLE* handle) {
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, path);
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
        return ZwOpenKey(handle, access, &oa);
    }
    static NTSTATUS SetDword(HANDLE key, const char16_t* name, ULONG value) {
        UNICODE_STRING n;
        RtlInitUnicodeString(&n, name);
        return ZwSetValueKey(key, &n, 0, REG_DWORD, &value, sizeof value);
    }

    uint64_t mHandlesBefore = 0;
};

TEST_F(Registry, CreateMakesTheKeysOnTheWayAndTellsWhetherItWasNew) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, u"\\Registry\\Machine\\Software\\Vendor\\Product");
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE key;
    ULONG disposition = 0;
    ASSERT_EQ(STATUS_SUCCESS, ZwCreateKey(&key, KEY_ALL_ACCESS, &oa, 0, nullptr, REG_OPTION_NON_VOLATILE, &disposition));
    EXPECT_EQ((ULONG)REG_CREATED_NEW_KEY, disposition);
    EXPECT_EQ(STATUS_SUCCESS, SetDword(key, u"Answer", 42));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(key));

    ASSERT_EQ(STATUS_SUCCESS, ZwCreateKey(&key, KEY_READ, &oa, 0, nullptr, REG_OPTION_NON_VOLATILE, &disposition));
    EXPECT_EQ((ULONG)REG_OPENED_EXISTING_KEY, disposition);
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(key));

    uint32_t value = 0;
    EXPECT_TRUE(kplat::RegistryGetDword("\\Registry\\Machine\\Software\\Vendor\\Product", "answer", &value));
    EXPECT_EQ(42u, value);
    HANDLE vendor;
    EXPECT_EQ(STATUS_SUCCESS, Open(u"\\Registry\\Machine\\Software\\Vendor", KEY_READ, &vendor));
    ZwClose(vendor);
}

// ---------------------------------------------------------------------------
// RtlQueryRegistryValues
// ---------------------------------------------------------------------------
struct Delivered {
    std::u16string name;
    ULONG type;
    std::vector<uint8_t> data;
    PVOID context;
    PVOID entryContext;
};
std::vector<Delivered> gDelivered;
NTSTATUS gQueryResult = STATUS_SUCCESS;

NTSTATUS Record(PWSTR name, ULONG type, PVOID data, ULONG length, PVOID context, PVOID entryContext) {
    gDelivered.push_back({name, type, std::vector<uint8_t>((uint8_t*)data, (uint8_t*)data + length), context,
                          entryContext});
    return gQueryResult;
}

class Query : public Registry {
protected:
    void SetUp() override {
        Registry::SetUp();
        gDelivered.clear();
        gQueryResult = STATUS_SUCCESS;
        memset(mTable, 0, sizeof mTable);
    }
    RTL_QUERY_REGISTRY_TABLE mTable[4];
};

TEST_F(Query, RoutineGetsValueWithContexts) {
    int context, entryContext;
    mTable[0].QueryRoutine = Record;
    mTable[0].Flags = RTL_QUERY_REGISTRY_REQUIRED;
    mTable[0].Name = (PWSTR)u"tracemask";
    mTable[0].EntryContext = &entryContext;
    EXPECT_EQ(STATUS_SUCCESS, RtlQueryRegistryValues(RTL_REGISTRY_SERVICES, u"ethbrg", mTable, &context, nullptr));
    ASSERT_EQ(1u, gDelivered.size());
    EXPECT_EQ(u"tracemask", gDelivered[0].name);
    EXPECT_EQ((ULONG)REG_DWORD, gDelivered[0].type);
    EXPECT_EQ((std::vector<uint8_t>{3, 0, 0, 0}), gDelivered[0].data);
    EXPECT_EQ(&context, gDelivered[0].context);
    EXPECT_EQ(&entryContext, gDelivered[0].entryContext);
}

// ---------------------------------------------------------------------------
// Text format and direct access
// ---------------------------------------------------------------------------
TEST_F(Registry, TextFormatLoadsEveryKindOfValue) {
    std::string error;
    ASSERT_EQ(STATUS_SUCCESS,
              kplat::RegistryLoadText("; adapter parameters\r\n"
                                      "\n"
                                      "[\\Registry\\Machine\\Adapter\\0001]\n"
                                      "  \"RxBuffers\" = dword:0000000a\n"
                                      "\"VendorDescription\"=\"say \\\"hi\\\" C:\\\\dir\"\n"
                                      "\"Blob\"=hex:01,02, ff\n"
                                      "\"Empty\"=hex:\n"
                                      "@=\"default\"\n"
                                      "[\\Registry\\Machine\\Adapter\\0002]\n",
                                      &error))
        << error;
    uint32_t v;
    EXPECT_TRUE(kplat::RegistryGetDword("\\Registry\\Machine\\Adapter\\0001", "RxBuffers", &v));
    EXPECT_EQ(10u, v);
    ULONG type;
    std::vector<uint8_t> data;
    ASSERT_TRUE(kplat::RegistryGetValue("\\Registry\\Machine\\Adapter\\0001", "VendorDescription", &type, &data));
    EXPECT_EQ((ULONG)REG_SZ, type);
    std::u16string expected = u"say \"hi\" C:\\dir";
    ASSERT_EQ((expected.size() + 1) * 2, data.size());
    EXPECT_EQ(0, memcmp(expected.c_str(), data.data(), data.size()));
    ASSERT_TRUE(kplat::RegistryGetValue("\\Registry\\Machine\\Adapter\\0001", "Blob", &type, &data));
    EXPECT_EQ((ULONG)REG_BINARY, type);
    EXPECT_EQ((std::vector<uint8_t>{1, 2, 0xFF}), data);
    ASSERT_TRUE(kplat::RegistryGetValue("\\Registry\\Machine\\Adapter\\0001", "Empty", &type, &data));
    EXPECT_TRUE(data.empty());
    EXPECT_TRUE(kplat::RegistryGetValue("\\Registry\\Machine\\Adapter\\0001", "", &type, &data));
    HANDLE key;
    EXPECT_EQ(STATUS_SUCCESS, Open(u"\\Registry\\Machine\\Adapter\\0002", KEY_READ, &key));
    ZwClose(key);
}

}  // namespace
