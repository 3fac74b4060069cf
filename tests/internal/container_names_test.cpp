// What a container is called after, and where its files are.
#include "internal/container_fixture.h"

namespace {

using namespace vttest;
using vtflt::BASE_BITMAP;
using vtflt::CBitmapContainer;
using vtflt::CHILD_BITMAP;

TEST(ContainerNames, NewContainerHoldsNothing)
{
    const CBitmapContainer container;
    EXPECT_TRUE(container.m_strAppId.empty());
    EXPECT_TRUE(container.m_strVolume.empty());
    EXPECT_TRUE(container.m_strBaseFileName.empty());
    EXPECT_TRUE(container.m_strChildFileName.empty());
    EXPECT_EQ(container.m_pBaseBitmap, nullptr);
    EXPECT_EQ(container.m_pChildBitmap, nullptr);
    EXPECT_EQ(container.m_hVolume, nullptr);
}

TEST(ContainerNames, InitNamesTheFilesAfterVolumeAndApplicationAndLogsBoth)
{
    LogCapture log;
    CBitmapContainer container;
    EXPECT_EQ(container.init(L"Volume{GUID}", L"app1"), 0u);
    EXPECT_TRUE(container.m_strVolume == L"Volume{GUID}");
    EXPECT_TRUE(container.m_strAppId == L"app1");
    EXPECT_TRUE(container.m_strBaseFileName == L"\\\\?\\Volume{GUID}\\VelVolTrc\\VelVolTrc_base_app1.dat");
    EXPECT_TRUE(container.m_strChildFileName == L"\\\\?\\Volume{GUID}\\VelVolTrc\\VelVolTrc_child_app1.dat");
    log.ExpectExactly(
        {{2, 0, L"CBitmapContainer::init:: Basebitmap Name is \\\\?\\Volume{GUID}\\VelVolTrc\\VelVolTrc_base_app1.dat"},
         {2, 0,
          L"CBitmapContainer::initChild bitmap Name is \\\\?\\Volume{GUID}\\VelVolTrc\\VelVolTrc_child_app1.dat"}});
}

TEST(ContainerNames, FolderIsBelowTheVolume)
{
    EXPECT_TRUE(vtflt::BitmapFolderPath(L"Volume{GUID}") == L"\\\\?\\Volume{GUID}\\VelVolTrc");
}

TEST(ContainerNames, FileNamesAreCutToARoomOf260Characters)
{
    const std::wstring prefix = L"\\\\?\\Volume{GUID}\\VelVolTrc\\VelVolTrc_base_";
    CBitmapContainer container;

    const std::wstring fits(259 - prefix.size() - 4, L'x');
    container.init(L"Volume{GUID}", fits);
    EXPECT_TRUE(container.m_strBaseFileName == prefix + fits + L".dat");

    container.init(L"Volume{GUID}", fits + L"y");
    EXPECT_TRUE(container.m_strBaseFileName == prefix + fits + L"y.da");
    container.init(L"Volume{GUID}", std::wstring(1000, L'x'));
    EXPECT_EQ(container.m_strBaseFileName.size(), 259u);
    EXPECT_EQ(container.m_strChildFileName.size(), 259u);
}

TEST(ContainerNames, InitDropsBothRecordsAndKeepsTheVolumeHandle)
{
    CBitmapContainer container;
    container.m_pBaseBitmap = vtflt::BitmapRecord::Make(4096, 1);
    container.m_pChildBitmap = vtflt::BitmapRecord::Make(4096, 1);
    container.m_hVolume = GetCurrentProcess();
    container.init(L"Volume{GUID}", L"app1");
    EXPECT_EQ(container.m_pBaseBitmap, nullptr);
    EXPECT_EQ(container.m_pChildBitmap, nullptr);
    EXPECT_EQ(container.m_hVolume, GetCurrentProcess());
}

TEST(ContainerNames, AnyFlagButZeroSelectsTheBaseBitmap)
{
    CBitmapContainer container;
    container.init(L"Volume{GUID}", L"app1");
    for (const DWORD flag : {BASE_BITMAP, DWORD{2}, DWORD{0x80000000}}) {
        EXPECT_EQ(&container.Record(flag), &container.m_pBaseBitmap);
        EXPECT_EQ(&container.FileName(flag), &container.m_strBaseFileName);
    }
    EXPECT_EQ(&container.Record(CHILD_BITMAP), &container.m_pChildBitmap);
    EXPECT_EQ(&container.FileName(CHILD_BITMAP), &container.m_strChildFileName);
}

class ContainerHandle : public ContainerTest {};

TEST_F(ContainerHandle, IsTheCallersAndStaysOpenWhenTheContainerGoes)
{
    container.reset();
    DWORD flags = 0;
    EXPECT_TRUE(GetHandleInformation(handle.get(), &flags));
}

} // namespace
