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
        std::string error;
        ASSERT_EQ(kplat::RegistryLoadText(std::string("[") + kKeyPath +
                                              "]\n"
                                              "\"TraceMask\"=dword:0000001f\n"
                                              "\"Text\"=\"a string\"\n"
                                              "\"Blob\"=hex:01,02,03,04\n",
                                          &error),
                  STATUS_SUCCESS)
            << error;
        mKeysBefore = kplat::GetObjectCounts().keyHandles;
    }
    void TearDown() override
    {
        EXPECT_EQ(kplat::GetObjectCounts().keyHandles, mKeysBefore) << "key handles leaked";
        kplat::RegistryClear();
        KnSetTraceMask(mSavedMask);
        KnSetTracePrefix(NULL);
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

TEST_F(KnRegistryKeyTest, OpenAndClose)
{
    KnRegistryKey key;
    EXPECT_FALSE(key.IsValid());
    EXPECT_EQ(key.OpenKey(kKeyPathW, KEY_READ), STATUS_SUCCESS);
    EXPECT_TRUE(key.IsValid());
    EXPECT_EQ(kplat::GetObjectCounts().keyHandles, mKeysBefore + 1);
    EXPECT_EQ(key.Close(), STATUS_SUCCESS);
    EXPECT_FALSE(key.IsValid());
    EXPECT_EQ(kplat::GetObjectCounts().keyHandles, mKeysBefore);
    EXPECT_EQ(mCapture.Text(), "");
}

TEST_F(KnRegistryKeyTest, CloseOfAClosedKeySucceedsAndDoesNothing)
{
    KnRegistryKey key;
    EXPECT_EQ(key.Close(), STATUS_SUCCESS);
    EXPECT_EQ(key.Close(), STATUS_SUCCESS);
    EXPECT_EQ(kplat::GetObjectCounts().keyHandles, mKeysBefore);
    EXPECT_EQ(mCapture.Text(), "");
}

TEST_F(KnRegistryKeyTest, OpenOfAMissingKeyFailsQuietly)
{
    KnRegistryKey key;
    NTSTATUS status = key.OpenKey(kMissingKeyW, KEY_READ);
    EXPECT_FALSE(NT_SUCCESS(status));
    EXPECT_FALSE(key.IsValid());
    EXPECT_EQ(mCapture.Text(), "") << "the caller traces";
}

TEST_F(KnRegistryKeyTest, OpenAgainClosesTheFirstKey)
{
    KnRegistryKey key;
    ASSERT_EQ(key.OpenKey(kKeyPathW, KEY_READ), STATUS_SUCCESS);
    ASSERT_EQ(key.OpenKey(kKeyPathW, KEY_READ), STATUS_SUCCESS);
    EXPECT_EQ(kplat::GetObjectCounts().keyHandles, mKeysBefore + 1);
    // A failed open leaves no key open.
    EXPECT_FALSE(NT_SUCCESS(key.OpenKey(kMissingKeyW, KEY_READ)));
    EXPECT_FALSE(key.IsValid());
    EXPECT_EQ(kplat::GetObjectCounts().keyHandles, mKeysBefore);
}

TEST_F(KnRegistryKeyTest, DestructorClosesTheKey)
{
    {
        KnRegistryKey key;
        ASSERT_EQ(key.OpenKey(kKeyPathW, KEY_READ), STATUS_SUCCESS);
    }
    EXPECT_EQ(kplat::GetObjectCounts().keyHandles, mKeysBefore);
}

TEST_F(KnRegistryKeyTest, QueryDwordReadsAnExistingValue)
{
    KnRegistryKey key;
    ASSERT_EQ(key.OpenKey(kKeyPathW, KEY_READ), STATUS_SUCCESS);
    ULONG value = 0xDEAD;
    EXPECT_EQ(key.QueryDword(u"TraceMask", &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 0x1Fu);
    EXPECT_EQ(key.QueryDword(u"tracemask", &value), STATUS_SUCCESS) << "value names ignore case";
}

TEST_F(KnRegistryKeyTest, QueryDwordOfAMissingValueLeavesTheResultAlone)
{
    KnRegistryKey key;
    ASSERT_EQ(key.OpenKey(kKeyPathW, KEY_READ), STATUS_SUCCESS);
    ULONG value = 0xDEAD;
    EXPECT_EQ(key.QueryDword(u"Missing", &value), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(value, 0xDEADu);
    EXPECT_EQ(mCapture.Text(), "");
}

TEST_F(KnRegistryKeyTest, QueryDwordOfAStringIsATypeMismatch)
{
    KnRegistryKey key;
    ASSERT_EQ(key.OpenKey(kKeyPathW, KEY_READ), STATUS_SUCCESS);
    ULONG value = 0xDEAD;
    EXPECT_EQ(key.QueryDword(u"Text", &value), STATUS_OBJECT_TYPE_MISMATCH);
    EXPECT_EQ(value, 0u);
    EXPECT_EQ(key.QueryDword(u"Blob", &value), STATUS_OBJECT_TYPE_MISMATCH);
}

TEST_F(KnRegistryKeyTest, QueryDwordOfTwoBytesFails)
{
    const USHORT shortValue = 0x1234;
    SetRaw(u"Short", REG_DWORD, &shortValue, sizeof(shortValue));
    KnRegistryKey key;
    ASSERT_EQ(key.OpenKey(kKeyPathW, KEY_READ), STATUS_SUCCESS);
    ULONG value = 0xDEAD;
    EXPECT_EQ(key.QueryDword(u"Short", &value), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(value, 0u);
}

TEST_F(KnRegistryKeyTest, QueryDwordOfEightBytesTakesTheFirstFour)
{
    const ULONG longValue[2] = {0x11223344, 0x55667788};
    SetRaw(u"Long", REG_DWORD, longValue, sizeof(longValue));
    KnRegistryKey key;
    ASSERT_EQ(key.OpenKey(kKeyPathW, KEY_READ), STATUS_SUCCESS);
    ULONG value = 0;
    EXPECT_EQ(key.QueryDword(u"Long", &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 0x11223344u);
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

TEST_F(KnRegistryKeyTest, GetDwordValueOfAnExistingValue)
{
    KnRegistryKey key;
    ASSERT_EQ(key.OpenKey(kKeyPathW, KEY_READ), STATUS_SUCCESS);
    ULONG value = 0;
    EXPECT_EQ(key.GetDwordValue(u"TraceMask", &value, 3), STATUS_SUCCESS);
    EXPECT_EQ(value, 0x1Fu);
    EXPECT_EQ(mCapture.Text(), "");
}

TEST_F(KnRegistryKeyTest, GetDwordValueOfAMissingValueWithAReadOnlyKey)
{
    KnRegistryKey key;
    ASSERT_EQ(key.OpenKey(kKeyPathW, KEY_READ), STATUS_SUCCESS);
    ULONG value = 0xDEAD;
    NTSTATUS status = key.GetDwordValue(u"Missing", &value, 3);
    EXPECT_FALSE(NT_SUCCESS(status));
    EXPECT_EQ(value, 3u) << "the default is handed back";
    char expected[256];
    KnFormat(expected, sizeof(expected),
             "ethbrg:KnRegistryKey::SetDword: ZwSetValueKey(Missing) failed, stat=%N\n"
             "ethbrg:KnRegistryKey::GetDwordValue: SetDword(Missing) failed, stat=%N\n",
             status, status);
    EXPECT_EQ(mCapture.Text(), expected);
    uint32_t stored = 0;
    EXPECT_FALSE(kplat::RegistryGetDword(kKeyPath, "Missing", &stored)) << "nothing was written";
}

TEST_F(KnRegistryKeyTest, GetDwordValueOfAMissingValueWithAWritableKeyStoresTheDefault)
{
    KnRegistryKey key;
    ASSERT_EQ(key.OpenKey(kKeyPathW, KEY_ALL_ACCESS), STATUS_SUCCESS);
    ULONG value = 0xDEAD;
    EXPECT_EQ(key.GetDwordValue(u"Missing", &value, 7), STATUS_SUCCESS);
    EXPECT_EQ(value, 7u);
    uint32_t stored = 0;
    EXPECT_TRUE(kplat::RegistryGetDword(kKeyPath, "Missing", &stored));
    EXPECT_EQ(stored, 7u);
    EXPECT_EQ(mCapture.Text(), "");
}

TEST_F(KnRegistryKeyTest, GetDwordValueOfAStringFallsBackToTheDefault)
{
    KnRegistryKey key;
    ASSERT_EQ(key.OpenKey(kKeyPathW, KEY_READ), STATUS_SUCCESS);
    ULONG value = 0xDEAD;
    EXPECT_FALSE(NT_SUCCESS(key.GetDwordValue(u"Text", &value, 9)));
    EXPECT_EQ(value, 9u);
    EXPECT_TRUE(mCapture.Contains("ethbrg:KnRegistryKey::GetDwordValue: SetDword(Text) failed"));

    // With write access the default replaces the string.
    ASSERT_EQ(key.OpenKey(kKeyPathW, KEY_ALL_ACCESS), STATUS_SUCCESS);
    EXPECT_EQ(key.GetDwordValue(u"Text", &value, 9), STATUS_SUCCESS);
    ULONG type = 0;
    std::vector<uint8_t> data;
    ASSERT_TRUE(kplat::RegistryGetValue(kKeyPath, "Text", &type, &data));
    EXPECT_EQ(type, (ULONG)REG_DWORD);
    EXPECT_EQ(data, (std::vector<uint8_t>{9, 0, 0, 0}));
}

TEST_F(KnRegistryKeyTest, GetDwordValueOfTwoBytesFallsBackToTheDefault)
{
    const USHORT shortValue = 0x1234;
    SetRaw(u"Short", REG_DWORD, &shortValue, sizeof(shortValue));
    KnRegistryKey key;
    ASSERT_EQ(key.OpenKey(kKeyPathW, KEY_ALL_ACCESS), STATUS_SUCCESS);
    ULONG value = 0;
    EXPECT_EQ(key.GetDwordValue(u"Short", &value, 0x55), STATUS_SUCCESS);
    EXPECT_EQ(value, 0x55u);
    uint32_t stored = 0;
    EXPECT_TRUE(kplat::RegistryGetDword(kKeyPath, "Short", &stored));
    EXPECT_EQ(stored, 0x55u);
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
