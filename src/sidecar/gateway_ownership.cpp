// The window shows only a gateway of this user's: on a machine with several
// accounts another user's gateway may hold the port, and its page holds that
// user's data.
#include "sidecar/process_table.h"
#include "sidecar/sidecar_manager.h"

namespace qor {

bool SidecarManager::refuseForeignGateway() {
  const int port = settings_.gatewayPort;
  if (!listenedOnByAnotherUser(port)) return false;
  writeDiagnostic("[sidecar] port " + std::to_string(port) +
                  " is held by another account; not starting\n");
  postStatus("端口 " + std::to_string(port) + " 正被其他用户的程序占用，QOR Velmora 无法启动。");
  stop();  // nothing of ours may keep trying for the port
  return true;
}

}  // namespace qor
