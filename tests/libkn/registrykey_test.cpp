// Tests of KnRegistryKey: open and close, DWORD reads and writes, the read
// with a default that tries to store the default.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <kplat/platform.h>

#include "knregistrykey.h"
#include "kntrace.h"

namespace {

const char kKeyPath[] = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\ethbrg";
const WCHAR kKeyPathW[] = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\ethbrg";
const WCHAR kMissingKeyW[] = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\nothere";

class RegistryTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        mSavedMask = KnGetTraceMask();
        KnSetTraceMask(KN_TRACE_MASK_DEFAULT);
        KnSetTracePrefix("ethbrg");
        kplat::RegistryClear();
        LoadRegistry();
        mKeysBefore = kplat::GetObjectCounts().keyHandles;
    }
    void TearDown() override
    {
        EXPECT_EQ(kplat::GetObjectCounts().keyHandles, mKeysBefore) << "key handles leaked";
        kplat::RegistryClear();
        KnSetTraceMask(mSavedMask);
        KnSetTracePrefix(NULL);
    }

    void LoadRegistry()
    {
        std::string error;
        ASSERT_EQ(kplat::RegistryLoadText(std::string("[") + kKeyPath +
                                              "]\n"
                                              "\"TraceMask\"=dword:0000001f\n"
                                              "\"Text\"=\"a string\"\n"
                                              "\"Blob\"=hex:01,02,03,04\n",
                                          &error),
                  STATUS_SUCCESS)
            << error;
    }
    // Sets a value of any type and size through a writable handle.
    void SetRaw(const WCHAR* name, ULONG type, const void* data, ULONG size)
    {
        KnRegistryKey key;
        ASSERT_EQ(key.OpenKey(kKeyPathW, KEY_ALL_ACCESS), STATUS_SUCCESS);
        UNICODE_STRING valueName;
        RtlInitUnicodeString(&valueName, name);
        ASSERT_EQ(ZwSetValueKey(key.GetHandle(), &valueName, 0, type, const_cast<void*>(data), size), STATUS_SUCCESS);
    }

    kplat::Scope mScope;
    kplat::DebugCapture mCapture;
    ULONG mSavedMask = 0;
    uint64_t mKeysBefore = 0;
};

class KnRegistryKeyTest : public RegistryTest {};

TEST_F(KnRegistryKeyTest, OpenCloseAndReopen)
{
    {
        KnRegistryKey key;
        EXPECT_FALSE(key.IsValid());
        EXPECT_EQ(key.Close(), STATUS_SUCCESS) << "closing a closed key does nothing";
        EXPECT_EQ(key.OpenKey(kKeyPathW, KEY_READ), STATUS_SUCCESS);
        EXPECT_TRUE(key.IsValid());
        EXPECT_EQ(kplat::GetObjectCounts().keyHandles, mKeysBefore + 1);
        EXPECT_EQ(key.Close(), STATUS_SUCCESS);
        EXPECT_FALSE(key.IsValid());
        EXPECT_EQ(key.Close(), STATUS_SUCCESS);
        EXPECT_EQ(kplat::GetObjectCounts().keyHandles, mKeysBefore);
        // Opening again closes the first key; a failed open leaves none open.
        ASSERT_EQ(key.OpenKey(kKeyPathW, KEY_READ), STATUS_SUCCESS);
        ASSERT_EQ(key.OpenKey(kKeyPathW, KEY_READ), STATUS_SUCCESS);
        EXPECT_EQ(kplat::GetObjectCounts().keyHandles, mKeysBefore + 1);
        EXPECT_FALSE(NT_SUCCESS(key.OpenKey(kMissingKeyW, KEY_READ)));
        EXPECT_FALSE(key.IsValid());
        EXPECT_EQ(kplat::GetObjectCounts().keyHandles, mKeysBefore);
        ASSERT_EQ(key.OpenKey(kKeyPathW, KEY_READ), STATUS_SUCCESS);
    }
    EXPECT_EQ(kplat::GetObjectCounts().keyHandles, mKeysBefore) << "the destructor closes the key";
    EXPECT_EQ(mCapture.Text(), "") << "the caller traces";
}

TEST_F(KnRegistryKeyTest, QueryDword)
{
    const USHORT shortValue = 0x1234;
    SetRaw(u"Short", REG_DWORD, &shortValue, sizeof(shortValue));
    const ULONG longValue[2] = {0x11223344, 0x55667788};
    SetRaw(u"Long", REG_DWORD, longValue, sizeof(longValue));
    const struct {
        const WCHAR* name;
        NTSTATUS status;
        ULONG value;  // 0xDEAD: left alone
    } cases[] = {
        {u"TraceMask", STATUS_SUCCESS, 0x1F},
        {u"tracemask", STATUS_SUCCESS, 0x1F},  // value names ignore case
        {u"Missing", STATUS_OBJECT_NAME_NOT_FOUND, 0xDEAD},
        {u"Text", STATUS_OBJECT_TYPE_MISMATCH, 0},
        {u"Blob", STATUS_OBJECT_TYPE_MISMATCH, 0},
        {u"Short", STATUS_UNSUCCESSFUL, 0},
        {u"Long", STATUS_SUCCESS, 0x11223344},  // the first four bytes
    };
    KnRegistryKey key;
    ASSERT_EQ(key.OpenKey(kKeyPathW, KEY_READ), STATUS_SUCCESS);
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); i++) {
        ULONG value = 0xDEAD;
        EXPECT_EQ(key.QueryDword(cases[i].name, &value), cases[i].status) << "case " << i;
        EXPECT_EQ(value, cases[i].value) << "case " << i;
    }
    EXPECT_EQ(mCapture.Text(), "");
}

TEST_F(KnRegistryKeyTest, SetDwordWritesAValue)
{
    KnRegistryKey key;
    ASSERT_EQ(key.OpenKey(kKeyPathW, KEY_READ | KEY_SET_VALUE), STATUS_SUCCESS);
    EXPECT_EQ(key.SetDword(u"NewValue", 0x12345678), STATUS_SUCCESS);
    uint32_t stored = 0;
    EXPECT_TRUE(kplat::RegistryGetDword(kKeyPath, "NewValue", &stored));
    EXPECT_EQ(stored, 0x12345678u);
    EXPECT_EQ(mCapture.Text(), "");
}

// The read with a default: an existing DWORD is read; a missing, mistyped or
// short value gives the default, which is stored when the key is writable.
TEST_F(KnRegistryKeyTest, GetDwordValueFallsBackToTheDefault)
{
    const USHORT shortValue = 0x1234;
    const struct {
        const WCHAR* name;
        const char* nameA;
        ACCESS_MASK access;
        bool succeeds;
        ULONG value;
        bool stored;  // the value is a DWORD afterwards
    } cases[] = {
        {u"TraceMask", "TraceMask", KEY_READ, true, 0x1F, true},
        {u"Missing", "Missing", KEY_READ, false, 3, false},
        {u"Text", "Text", KEY_READ, false, 3, false},
        {u"Short", "Short", KEY_READ, false, 3, false},
        {u"Missing", "Missing", KEY_ALL_ACCESS, true, 3, true},
        {u"Text", "Text", KEY_ALL_ACCESS, true, 3, true},
        {u"Short", "Short", KEY_ALL_ACCESS, true, 3, true},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); i++) {
        kplat::RegistryClear();
        LoadRegistry();
        SetRaw(u"Short", REG_DWORD, &shortValue, sizeof(shortValue));
        KnRegistryKey key;
        ASSERT_EQ(key.OpenKey(kKeyPathW, cases[i].access), STATUS_SUCCESS);
        ULONG value = 0xDEAD;
        NTSTATUS status = key.GetDwordValue(cases[i].name, &value, 3);
        EXPECT_EQ(NT_SUCCESS(status), cases[i].succeeds) << "case " << i;
        EXPECT_EQ(value, cases[i].value) << "case " << i;
        ULONG type = 0;
        std::vector<uint8_t> data;
        bool exists = kplat::RegistryGetValue(kKeyPath, cases[i].nameA, &type, &data);
        EXPECT_EQ(exists && type == REG_DWORD && data.size() == 4, cases[i].stored) << "case " << i;
        if (cases[i].stored) {
            EXPECT_EQ(data[0], (uint8_t)cases[i].value) << "case " << i;
        }
        std::string text = mCapture.Take();
        if (cases[i].succeeds) {
            EXPECT_EQ(text, "") << "case " << i;
        } else {
            char expected[256];
            KnFormat(expected, sizeof(expected),
                     "ethbrg:KnRegistryKey::SetDword: ZwSetValueKey(%s) failed, stat=%N\n"
                     "ethbrg:KnRegistryKey::GetDwordValue: SetDword(%s) failed, stat=%N\n",
                     cases[i].nameA, status, cases[i].nameA, status);
            EXPECT_EQ(text, expected) << "case " << i;
        }
    }
}

TEST_F(KnRegistryKeyTest, OperationsOnAClosedKeyAssert)
{
    KnRegistryKey key;
    ULONG value = 0;
    key.QueryDword(u"TraceMask", &value);
    EXPECT_TRUE(mCapture.Contains("ASSERTION FAILED: (IsValid())\n  source/libkn/knregistrykey.cpp("));
}

TEST_F(KnRegistryKeyTest, IrqlIsChecked)
{
    kplat::CheckRecorder checks;
    KnRegistryKey key;
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    key.Close();
    KeLowerIrql(old);
    EXPECT_TRUE(mCapture.Contains("ASSERTION FAILED: (IRQL_EQ_PASSIVE())\n  source/libkn/knregistrykey.cpp("));
}

}  // namespace
