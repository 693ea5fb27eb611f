// The install record list: handles in order of acceptance, and the lookup that a manager's
// next-item walk uses, in order, backwards and after the list is released.
#include <gtest/gtest.h>

#include <cstring>

#include "records.h"

TEST(RecordList, LookupFindsEveryHandleInAnyOrderAndNothingAfterRelease)
{
    const unsigned char Record[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    int32_t First = InstallPacketNumber;
    for (int i = 0; i < 4; i++)
        ASSERT_EQ(0, AppendInstallRecord("c.rpm", Record, sizeof Record));
    for (int32_t Handle : {First, First + 1, First + 2, First + 3, First + 3, First + 1, First}) {
        PINSTALL_PACKET_LIST Node = FindInstallRecord(Handle);
        ASSERT_NE(nullptr, Node) << Handle;
        EXPECT_EQ(Handle, Node->InstallPacketHandle);
        EXPECT_EQ(0, memcmp(Record, Node->InstallPacketSendBuffer, sizeof Record));
    }
    EXPECT_EQ(nullptr, FindInstallRecord(First + 3)->NextPacket);
    EXPECT_EQ(nullptr, FindInstallRecord(First + 4));
    EXPECT_EQ(nullptr, FindInstallRecord(First - 1));
    FreeInstallPacketList();
    EXPECT_EQ(nullptr, FindInstallRecord(First + 2));
    ASSERT_EQ(0, AppendInstallRecord("d.rpm", Record, sizeof Record));
    EXPECT_EQ(InstallPacketList, FindInstallRecord(First + 4));
    FreeInstallPacketList();
}
