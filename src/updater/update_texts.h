// Everything the updater says to the user, in one place. Texts that take a
// value are split around it.
#pragma once

namespace qor::updateTexts {

inline constexpr const char* okButton = "好";

// Checking.
inline constexpr const char* checkFailedTitle = "无法检查更新";
inline constexpr const char* noResponse = "更新服务无响应。";
inline constexpr const char* unavailableBefore = "更新服务暂时不可用（HTTP ";
inline constexpr const char* unavailableAfter = "）。";
inline constexpr const char* undecodableBefore = "更新清单解析失败：";
// Under blockedTitle: a manifest not signed by a trusted key.
inline constexpr const char* unsignedManifest = "更新清单的签名缺失或无效。";
inline constexpr const char* cannotUpdateTitle = "无法更新";
inline constexpr const char* noAssetBefore = "没有适配当前芯片架构（";
inline constexpr const char* noAssetAfter = "）的安装包。";
inline constexpr const char* unknownPlatform = "未知";
inline constexpr const char* upToDateTitle = "已是最新版本";
inline constexpr const char* upToDateBefore = "当前版本 ";
inline constexpr const char* upToDateAfter = "，无需更新。";
inline constexpr const char* newVersionTitle = "发现新版本 ";
inline constexpr const char* forcedVersionTitle = "必须更新到 ";
inline constexpr const char* runningVersion = "当前版本：";
inline constexpr const char* defaultNotes = "建议更新以获得最新修复与改进。";
inline constexpr const char* updateNowButton = "立即更新";
inline constexpr const char* laterButton = "稍后";
inline constexpr const char* packageManagedBefore = "此安装由系统的软件包管理器更新，请通过它安装 ";
inline constexpr const char* packageManagedAfter = "。";

// Transfers that failed before the server answered; the technical detail
// follows on a line of its own.
inline constexpr const char* noNetwork = "无法连接网络，请检查网络连接。";
inline constexpr const char* nameNotResolved = "找不到更新服务器（无法解析其地址）。";
inline constexpr const char* refused = "更新服务器拒绝了连接。";
inline constexpr const char* timedOut = "连接更新服务器超时。";
inline constexpr const char* insecure = "无法与更新服务器建立安全连接。";

// Builds without an update server.
inline constexpr const char* notConfiguredMenuItem = "此版本未配置更新";

// Downloading.
inline constexpr const char* invalidAddress = "清单中的下载地址无效。";
inline constexpr const char* blockedTitle = "已阻止更新";
inline constexpr const char* untrustedAddress = "下载地址不受信任：";
inline constexpr const char* noHost = "(nil)";
inline constexpr const char* downloadingTitle = "正在下载更新 ";
inline constexpr const char* downloadingText = "下载完成并校验通过后，QOR 将自动重启完成安装。";
inline constexpr const char* cancelButton = "取消";
inline constexpr const char* failedTitle = "更新失败";
inline constexpr const char* saveFailed = "保存下载文件失败：";
inline constexpr const char* lowSpaceBefore = "磁盘空间不足，无法安装更新：需要 ";
inline constexpr const char* lowSpaceBetween = " MB，";
inline constexpr const char* lowSpaceAvailable = " 所在磁盘只有 ";
inline constexpr const char* lowSpaceAfter = " MB 可用。";

// Verifying and installing.
inline constexpr const char* unreadable = "无法读取下载文件：";
inline constexpr const char* digestMismatch = "安装包校验和不匹配，可能已损坏或被篡改。\n期望 ";
inline constexpr const char* digestActual = "…\n实际 ";
inline constexpr const char* ellipsis = "…";
inline constexpr const char* sizeMismatchBefore = "安装包大小与清单不一致（";
inline constexpr const char* sizeMismatchBetween = " ≠ ";
inline constexpr const char* sizeMismatchAfter = "）。";
inline constexpr const char* cannotMount = "无法挂载安装镜像。";
inline constexpr const char* bundleMissingBefore = "镜像中找不到 ";
inline constexpr const char* bundleMissingAfter = "。";
inline constexpr const char* scriptFailed = "无法创建安装脚本。";
inline constexpr const char* readyTitle = "准备安装 ";
inline constexpr const char* readyTitleWithoutManifest = "新版本";
inline constexpr const char* readyText = "QOR 将退出并自动重启，窗口会在几秒后重新打开。";
inline constexpr const char* restartButton = "立即重启";

// A Debian package installed through the privileged runner.
inline constexpr const char* packageFailedBefore = "未能通过系统的软件包管理器安装 ";
inline constexpr const char* packageFailedAfter = "（授权被拒绝或安装出错），当前版本继续运行。";
// Above readyText once the package is installed: only the restart is left.
inline constexpr const char* installedTitle = "已安装 ";

// The next start, after the install script kept the old version.
inline constexpr const char* installFailedBefore = "无法安装更新 ";
inline constexpr const char* installFailedKept = "，已保留当前版本 ";
inline constexpr const char* installFailedLog = "。\n详细原因见 ";
inline constexpr const char* installFailedAfter = "。";

}  // namespace qor::updateTexts
