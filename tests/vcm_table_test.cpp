// The rules every chip follows: the shared settings tables and null
// pointers (SetConfig's checks and a failed wait on the bus lock are in the
// trace contract, with the events they give).
#include "vcm_fixture.h"

namespace korvanel::test {
namespace {

class VcmTableTest : public VcmTest {};


TEST_F(VcmTableTest, SetConfigOnOneDeviceChangesWhatInitProgramsOnAnother)
{
    PDEVICE_CONTEXT other = add();
    select("DW9718", ctx, 0x10);
    select("DW9718", other, 0x11);
    ULONG config[] = {7, 0, 0x01, 1, 0x3A, 2, 0, 3, 0, 4, 0, 5, 0x65, 0x10, 0x02};
    ASSERT_EQ(DW9718_SetConfig(ctx, config), STATUS_SUCCESS);
    clear();
    ASSERT_EQ(DW9718_Init(other), STATUS_SUCCESS);
    EXPECT_EQ(timeline(), (Wire{W({0x00, 0x01}), W({0x01, 0x3A}), W({0x02, 0}), W({0x03, 0}), W({0x04, 0}),
                                W({0x05, 0x65}), W({0x10, 0x02})}));
    EXPECT_EQ(sys.bus().transcript().at(0).connection, 0x11u);
}

TEST_F(VcmTableTest, NullPointersTouchNothing)
{
    select("DW9714");
    for (ULONG i = 1; i < VCM_TYPE_COUNT; i++) {
        const VCM_DRIVER& r = platform::actuator_table()[i];
        SCOPED_TRACE(r.Name);
        ULONG flag = 0, empty[] = {0};
        USHORT position = 0;
        for (NTSTATUS status : {r.Init(nullptr), r.ResetPos(nullptr), r.SetPos(nullptr, 1), r.SetConfig(nullptr, empty),
                                r.GetPos(nullptr, &position), r.GetPos(ctx, nullptr), r.GetStatus(nullptr, &flag),
                                r.GetStatus(ctx, nullptr), r.GetHPStatus(nullptr, &flag), r.GetHPStatus(ctx, nullptr)}) {
            EXPECT_EQ(status, STATUS_INVALID_PARAMETER);
        }
    }
    EXPECT_EQ(DW9806B_WarmStart(nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(timeline().empty());
    EXPECT_TRUE(sys.traces().events().empty());
    EXPECT_TRUE(lock_free());
}

}  // namespace
}  // namespace korvanel::test
