// The wait thread's choice of the record that a reaped pid belongs to.
#include "tests/unit/supervision/supervision_fixture.h"

namespace Stavik {
namespace SupervisionTest {
namespace {

const int32_t PID = 4242;
const int32_t STATUS = 0x0100;
const uint64_t NOW = 1000;

class ExitStatusDelivery : public DaemonSteps {};

TEST_F(ExitStatusDelivery, OldestLiveRecordAcrossBothListsGetsTheStatus)
{
    // The base record is older: it is the dead one, the general one a reuse.
    auto general = AddGeneral("gen", "owner", PID, RUNNING, 200);
    AddBase(Base(Data("base"), PID, RUNNING, 100));
    daemon_->DeliverExitStatus(PID, STATUS, NOW);
    EXPECT_TRUE(BaseCopy("base").hasExitStatus_);
    EXPECT_EQ(STATUS, BaseCopy("base").exitStatus_);
    EXPECT_FALSE(general->hasExitStatus_);

    // Equal start times: the general record wins, the comparison is strict.
    ClearTables();
    general = AddGeneral("gen", "owner", PID, RUNNING, 100);
    AddBase(Base(Data("base"), PID, RUNNING, 100));
    daemon_->DeliverExitStatus(PID, STATUS, NOW);
    EXPECT_TRUE(general->hasExitStatus_);
    EXPECT_FALSE(BaseCopy("base").hasExitStatus_);

    // A dead record with the pid doesn't count, however old.
    ClearTables();
    AddBase(Base(Data("dead"), PID, TERMINATED, 10));
    AddBase(Base(Data("live"), PID, STARTING, 300));
    daemon_->DeliverExitStatus(PID, STATUS, NOW);
    EXPECT_FALSE(BaseCopy("dead").hasExitStatus_);
    EXPECT_TRUE(BaseCopy("live").hasExitStatus_);
    EXPECT_FALSE(LogCapture::Contains("can not find app"));
}

TEST_F(ExitStatusDelivery, RecordStartedAtTheReapIsNotMatchedAndTheStatusIsDropped)
{
    auto general = AddGeneral("gen", "owner", PID, RUNNING, NOW);
    AddBase(Base(Data("base"), PID, RUNNING, NOW + 1));
    AddBase(Base(Data("other"), PID + 1, RUNNING, 1));
    daemon_->DeliverExitStatus(PID, STATUS, NOW);
    EXPECT_FALSE(general->hasExitStatus_);
    EXPECT_FALSE(BaseCopy("base").hasExitStatus_);
    EXPECT_FALSE(BaseCopy("other").hasExitStatus_);
    EXPECT_EQ(LOG_WARNING, LevelOf("STAVIK: can not find app, pid=4242"));
}

} // namespace
} // namespace SupervisionTest
} // namespace Stavik
