// Access lists of objects, as a program of another account meets them.
#pragma once

#include "win/owners.h"

#include <aclapi.h>
#include <gtest/gtest.h>
#include <string>

namespace vttest {

// That a descriptor's access list is null: programs of every account may do everything with what it describes.
inline void ExpectNullList(PSECURITY_DESCRIPTOR descriptor)
{
    PACL list = nullptr;
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    ASSERT_TRUE(GetSecurityDescriptorDacl(descriptor, &present, &list, &defaulted));
    EXPECT_TRUE(present);
    EXPECT_EQ(nullptr, list);
}

// An object's; the handle was opened with READ_CONTROL.
inline void ExpectOpenToEveryone(const vtflt::UniqueHandle& object)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    PACL list = nullptr;
    ASSERT_EQ(static_cast<DWORD>(ERROR_SUCCESS),
              GetSecurityInfo(object.get(), SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &list,
                              nullptr, &descriptor));
    const vtflt::UniqueLocalMemory owner(descriptor);
    ExpectNullList(descriptor);
}

inline void ExpectFileOpenToEveryone(std::wstring path)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    PACL list = nullptr;
    ASSERT_EQ(static_cast<DWORD>(ERROR_SUCCESS),
              GetNamedSecurityInfoW(path.data(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &list,
                                    nullptr, &descriptor));
    const vtflt::UniqueLocalMemory owner(descriptor);
    ExpectNullList(descriptor);
}

} // namespace vttest
