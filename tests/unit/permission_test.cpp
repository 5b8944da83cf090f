// LUMO_MANAGERS and LUMO_STRICT_TASKS: who may do what, and how often the system is asked.
#include "client/permission.h"

#include <grp.h>
#include <pwd.h>

#include <optional>

#include "client/dispatch.h"
#include "core/status.h"
#include "tests/unit/client_fixture.h"

namespace {

// Whom the system names as the other end of every connection, when a test says so.
struct FakePeer {
  ucred Credentials;
  std::vector<gid_t> Groups;
};
std::optional<FakePeer> fakePeer;
int lookUps;

}  // namespace

extern "C" {
int __real_getsockopt(int socket, int level, int name, void* value, socklen_t* size);
int __wrap_getsockopt(int socket, int level, int name, void* value, socklen_t* size) {
  if (!fakePeer || level != SOL_SOCKET || (name != SO_PEERCRED && name != SO_PEERGROUPS))
    return __real_getsockopt(socket, level, name, value, size);
  ++lookUps;
  if (name == SO_PEERCRED) {
    std::memcpy(value, &fakePeer->Credentials, sizeof fakePeer->Credentials);
    return 0;
  }
  std::copy(fakePeer->Groups.begin(), fakePeer->Groups.end(), static_cast<gid_t*>(value));
  *size = static_cast<socklen_t>(fakePeer->Groups.size() * sizeof(gid_t));
  return 0;
}
}

namespace {

constexpr uid_t kStranger = 64321;
constexpr gid_t kGroup = 64322, kOtherGroup = 64323;

class Permission : public ClientTest {
 protected:
  void SetUp() override {
    ClientTest::SetUp();
    g_DbcI.PutMsg = PutMsgToClient;
    lookUps = 0;
    socket_ = Connect();
  }
  void TearDown() override {
    Ask(nullptr, nullptr);
    fakePeer.reset();
    ClientTest::TearDown();
  }
  void Ask(const char* managers, const char* strictTasks) {
    managers ? setenv("LUMO_MANAGERS", managers, 1) : unsetenv("LUMO_MANAGERS");
    strictTasks ? setenv("LUMO_STRICT_TASKS", strictTasks, 1) : unsetenv("LUMO_STRICT_TASKS");
    ReadPermissions();
    ForgetPermissions(socket_);
  }
  // The peer of the connection from now on.
  void BePeer(uid_t user, gid_t group = kOtherGroup, const std::vector<gid_t>& groups = {},
              pid_t pid = getpid()) {
    fakePeer = FakePeer{{pid, user, group}, groups};
    ForgetPermissions(socket_);
  }
  bool MayManageAs(uid_t user, gid_t group = kOtherGroup, const std::vector<gid_t>& groups = {}) {
    BePeer(user, group, groups);
    return MayManage(socket_);
  }
  int socket_ = -1;
};

TEST_F(Permission, UnsetEverybodyMayEverythingAndNothingIsLookedUp) {
  for (const char* const value : {static_cast<const char*>(nullptr), ""}) {
    Ask(value, value);
    BePeer(kStranger);
    EXPECT_FALSE(permissionsAsked);
    EXPECT_TRUE(MayManage(socket_));
    EXPECT_TRUE(MayNameTask(socket_, 1));
    EXPECT_TRUE(MayNameTask(socket_, -7));
    EXPECT_EQ(lookUps, 0);
  }
}

TEST_F(Permission, ManagersAreUsersAndGroupsByNumber) {
  Ask("64321, @64322", nullptr);
  EXPECT_TRUE(MayManageAs(kStranger));
  EXPECT_FALSE(MayManageAs(kStranger + 1));
  EXPECT_TRUE(MayManageAs(kStranger + 1, kGroup));
  EXPECT_TRUE(MayManageAs(kStranger + 1, kOtherGroup, {7, kGroup, 8}));
  EXPECT_FALSE(MayManageAs(kStranger + 1, kOtherGroup, {7, kStranger, 8}));
}

TEST_F(Permission, ManagersAreUsersAndGroupsByName) {
  const passwd* const daemon = getpwnam("daemon");
  const group* const games = getgrnam("games");
  ASSERT_TRUE(daemon && games);
  Ask("daemon @games", nullptr);
  EXPECT_TRUE(MayManageAs(daemon->pw_uid));
  EXPECT_TRUE(MayManageAs(kStranger, games->gr_gid));
  EXPECT_FALSE(MayManageAs(games->gr_gid + 1000));
}

TEST_F(Permission, RootAndTheAgentsOwnUserAlwaysManage) {
  Ask("64321", nullptr);
  EXPECT_TRUE(MayManageAs(0));
  const bool isRoot = geteuid() == 0;
  ASSERT_TRUE(!isRoot || seteuid(kStranger + 1) == 0);
  EXPECT_TRUE(MayManageAs(geteuid()));
  ASSERT_TRUE(!isRoot || seteuid(0) == 0);
}

TEST_F(Permission, WordThatNamesNobodyIsToldAndPermitsNobody) {
  const CapturedStderr log;
  Ask("no-such-user,@no-such-group,@", nullptr);
  EXPECT_EQ(log.Text(),
            "lumo_tcp:LUMO_MANAGERS: 'no-such-user' is no user, group or number\n"
            "lumo_tcp:LUMO_MANAGERS: '@no-such-group' is no user, group or number\n"
            "lumo_tcp:LUMO_MANAGERS: '@' is no user, group or number\n");
  EXPECT_FALSE(MayManageAs(kStranger));
}

TEST_F(Permission, MoreManagersThanThereIsRoomForAreTold) {
  std::string list;
  for (int id = 1; id <= 65; ++id) list += std::to_string(id) + ' ';
  const CapturedStderr log;
  Ask(list.c_str(), nullptr);
  EXPECT_EQ(log.Text(), "lumo_tcp:LUMO_MANAGERS: '65' is one too many\n");
  EXPECT_TRUE(MayManageAs(64));
  EXPECT_FALSE(MayManageAs(65));
}

TEST_F(Permission, ManagerIsLookedUpOnceForAConnection) {
  Ask("@64322", nullptr);
  BePeer(kStranger);
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(MayManage(socket_));
  EXPECT_EQ(lookUps, 2);  // credentials and groups
  BePeer(kStranger, kGroup);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(MayManage(socket_));
  EXPECT_EQ(lookUps, 3);
}

TEST_F(Permission, StrictTasksAreTheConnectionsOwnAndThoseOfItsUser) {
  Ask(nullptr, "1");
  test::LivingProcess child;
  BePeer(geteuid(), kOtherGroup, {}, 1000000);
  EXPECT_TRUE(MayNameTask(socket_, 1000000));  // its own, seen or not
  EXPECT_TRUE(MayNameTask(socket_, child.Pid()));
  EXPECT_FALSE(MayNameTask(socket_, 0));
  EXPECT_FALSE(MayNameTask(socket_, -child.Pid()));
  EXPECT_FALSE(MayNameTask(socket_, test::DeadPid()));
  BePeer(kStranger, kOtherGroup, {}, 1000000);
  EXPECT_FALSE(MayNameTask(socket_, child.Pid()));
  EXPECT_FALSE(MayNameTask(socket_, getpid()));
  EXPECT_EQ(lookUps, 2);
}

TEST_F(Permission, NameIsLookedUpOnceForAConnection) {
  Ask(nullptr, "1");
  test::LivingProcess child;
  const pid_t pid = child.Pid();
  BePeer(geteuid());
  EXPECT_TRUE(MayNameTask(socket_, pid));
  child.Kill();
  EXPECT_TRUE(MayNameTask(socket_, pid));  // not looked for again
  ForgetPermissions(socket_);
  EXPECT_FALSE(MayNameTask(socket_, pid));
}

TEST_F(Permission, StrictTasksThatAreNeitherZeroNorOneAreToldAndUnset) {
  const CapturedStderr log;
  Ask(nullptr, "yes");
  EXPECT_EQ(log.Text(), "lumo_tcp:LUMO_STRICT_TASKS: 'yes' is neither 0 nor 1\n");
  EXPECT_FALSE(permissionsAsked);
  Ask(nullptr, "0");
  EXPECT_FALSE(permissionsAsked);
}

TEST_F(Permission, ConnectionThatTheSystemDoesNotTellOfMayNothing) {
  Ask("64321", "1");
  EXPECT_FALSE(MayManage(-1));
  EXPECT_FALSE(MayNameTask(-1, getpid()));
  EXPECT_FALSE(MayManage(FD_SETSIZE));
}

class PermissionDispatch : public Permission {
 protected:
  // Handles a request: whether it was refused.
  bool IsRefused(const lumo::Message& request) {
    Come(socket_, FrameOf(request));
    const int result = HandleMessageFromClientQueue(kHere, 1, socket_);
    const std::string answer = Take(socket_);
    EXPECT_FALSE(answer.empty());
    const bool refused = answer == test::ErrorFrame(request, kStatusNotPermitted, EPERM);
    EXPECT_EQ(result, refused ? -1 : 0);
    return refused;
  }
};

TEST_F(PermissionDispatch, OnlyCommandsThatChangeSomethingAreRefused) {
  Ask("64321", nullptr);
  BePeer(kStranger + 1);
  const std::vector<int> changing{106, 117, 118, 119, 123, 124, 125, 126, 127, 128};
  for (int command = 99; command <= 130; ++command)
    EXPECT_EQ(IsRefused(Management(static_cast<std::uint16_t>(command))),
              std::count(changing.begin(), changing.end(), command) == 1)
        << command;
  BePeer(kStranger);
  for (const int command : changing)
    EXPECT_FALSE(IsRefused(Management(static_cast<std::uint16_t>(command)))) << command;
}

TEST_F(PermissionDispatch, RefusalOfACommandIsOneLine) {
  Ask("64321", nullptr);
  BePeer(kStranger + 1, kOtherGroup, {}, 4711);
  const CapturedLog log(kLogError);
  EXPECT_TRUE(IsRefused(Management(119)));
  EXPECT_EQ(log.Lines(),
            Texts{"2 clntxch|Management command 119 of process 4711, user 64322 is not permitted"});
}

TEST_F(PermissionDispatch, ForeignNameIsRefusedWithAnAnswerThoughItsProcessDoesNotLive) {
  Ask(nullptr, "1");
  BePeer(geteuid(), kOtherGroup, {}, 4711);
  for (lumo::Message request : {Request({}, 5), Management(102)}) {
    request.TaskName = test::DeadPid();
    const CapturedLog log(kLogError);
    EXPECT_TRUE(IsRefused(request));
    EXPECT_EQ(log.Lines(),
              Texts{"2 clntxch|Request in the name of process " + std::to_string(request.TaskName) +
                    " from process 4711, user " + std::to_string(geteuid()) + " is not permitted"});
  }
  EXPECT_FALSE(IsRefused(Management(102)));
}

}  // namespace
