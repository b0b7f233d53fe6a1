// Scaffolding for the updater tests: a real HTTPS server (update_server.py) publishing manifests
// signed with a throw-away key the updaters trust, and an installed bundle and a temporary folder
// whose paths hold a space and a "'".
#pragma once

#include <fnmatch.h>
#include <gtest/gtest.h>

#include <openssl/crypto.h>
#include <algorithm>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

#include "base/child_process.h"
#include "base/files.h"
#include "release/signing_key.h"
#include "support/eventually.h"
#include "support/listings.h"
#include "support/temporary_folder.h"
#include "updater/updater.h"

namespace qor::testing {

using namespace std::chrono_literals;
using nlohmann::json;

inline std::string readFile(const std::filesystem::path& file) {
  return readTextFile(file).value_or("");
}

inline void writeFile(const std::filesystem::path& file, std::string_view contents) {
  std::filesystem::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary) << contents;
}

// A bundle of `version` at `folder` with the exchange tool; its program runs `program`.
inline void makeBundle(const std::filesystem::path& folder, const std::string& version,
                       const std::string& program = "echo started > \"${0%/*}/../started\"") {
  writeFile(folder / "share" / "qor-velmora" / "APP_VERSION", version + "\n");
  writeFile(folder / "bin" / "qor-velmora", "#!/bin/sh\n" + program + "\n");
  std::filesystem::permissions(folder / "bin" / "qor-velmora", std::filesystem::perms(0755));
  const auto tool = folder / "lib" / "qor-velmora" / "qor-exchange";
  std::filesystem::create_directories(tool.parent_path());
  std::filesystem::copy_file(EXCHANGE_TOOL, tool,
                             std::filesystem::copy_options::overwrite_existing);
}

// Whether `text` fits `pattern`, in which "*" stands for any text.
inline bool fits(const std::string& pattern, const std::string& text) {
  return fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
}

// Whether the install script at `script` has found the application running and waits for it
// to exit: the script's shell has a `sleep` of its own.
inline bool scriptWaitsForTheApplication(const std::filesystem::path& script) {
  using namespace std::string_literals;
  const auto processes = runningProcesses();
  return std::ranges::any_of(processes, [&](const RunningProcess& shell) {
    return shell.commandLine == "/bin/bash\0"s + script.string() + '\0' &&
           std::ranges::any_of(processes, [&](const RunningProcess& process) {
             return process.parent == shell.pid && process.name == "sleep";
           });
  });
}

// The UI thread (the test's own: posted tasks run when the test pumps) and
// the user, who answers alerts as the test says.
class TestUI : public MainThreadQueue, public UpdaterDialogs {
 public:
  std::optional<std::size_t> answer;  // the button pressed in every alert; none: closed
  bool cancelOnFirstValue = false;    // presses "取消" when the bar first moves
  std::vector<std::string> alerts;    // "title|text|button,button", "…|critical" when critical
  std::vector<std::chrono::steady_clock::time_point> answeredAt;
  std::vector<std::string> progress;  // "show title|text|button", "maximum n", "value n", "close"

  void post(std::function<void()> task) override {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
  }
  std::size_t pendingTasks() {
    std::lock_guard lock(mutex_);
    return tasks_.size();
  }
  void runPosted() {
    std::unique_lock lock(mutex_);
    auto tasks = std::exchange(tasks_, {});
    lock.unlock();
    for (auto& task : tasks) task();
  }
  // Runs posted tasks until `done` holds (true) or `timeout` has passed.
  bool pumpUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = 30s) {
    return eventually([&] { return runPosted(), done(); }, timeout);
  }

  void showAlert(const UpdateAlert& alert, AlertCompletion completion) override {
    onUIThread();
    std::string buttons;
    for (const auto& button : alert.buttons) buttons += (buttons.empty() ? "" : ",") + button;
    alerts.push_back(alert.title + "|" + alert.text + "|" + buttons +
                     (alert.style == UpdateAlertStyle::critical ? "|critical" : ""));
    post([this, completion, button = answer] {
      answeredAt.push_back(std::chrono::steady_clock::now());
      completion(button);
    });
  }
  void showProgress(const UpdateProgress& dialog, std::function<void()> onCancel) override {
    record("show " + dialog.title + "|" + dialog.text + "|" + dialog.cancelButton);
    onCancel_ = std::move(onCancel);
  }
  void setProgressMaximum(double maximum) override { record("maximum " + whole(maximum)); }
  void setProgressValue(double value) override {
    record("value " + whole(value));
    if (cancelOnFirstValue && onCancel_) post(std::exchange(onCancel_, nullptr));
  }
  void closeProgress() override { record("close"), onCancel_ = nullptr; }

 private:
  void onUIThread() const { EXPECT_EQ(std::this_thread::get_id(), uiThread_); }
  void record(std::string event) { onUIThread(), progress.push_back(std::move(event)); }
  static std::string whole(double number) { return std::to_string(std::int64_t(number)); }

  const std::thread::id uiThread_ = std::this_thread::get_id();
  std::mutex mutex_;
  std::vector<std::function<void()>> tasks_;
  std::function<void()> onCancel_;
};

// In the application the HTTP client is the first to start OpenSSL, and tells
// it to keep its state at exit, where a check's detached request may still use
// it. Here the signing key comes first, so the same is asked before main.
inline const bool openSslKeptAtExit = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);

class UpdaterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    temporary_ = root_ / "tmp dir's";
    bundle_ = root_ / "user's apps" / "QOR Velmora";
    std::filesystem::create_directories(temporary_);
    makeBundle(bundle_, "1.0.0");
    server_ = ChildProcess::launch({.executable = "/usr/bin/python3",
                                    .arguments = {UPDATE_SERVER_SCRIPT, root_},
                                    .output = OutputMode::discard})
                  .value();
    ASSERT_TRUE(ui_->pumpUntil([&] { return std::filesystem::exists(root_ / "port"); }));
    host_ = "127.0.0.1:" + readFile(root_ / "port");
  }
  void TearDown() override {
    if (server_) server_->kill(), server_->waitForExit();
  }

  std::shared_ptr<Updater> makeUpdater(const std::function<void(Updater::Settings&)>& change = {}) {
    Updater::Settings settings{.host = host_,
                               .extraCAFile = root_ / "ca.pem",
                               .temporaryDirectory = temporary_,
                               .bundleRoot = bundle_,
                               .supportDirectory = root_ / "support",
                               .machineName = "x86_64",
                               .clockSpeed = 10.0,
                               .trustedKeys = {signingKey_.publicKey()},
                               .diagnostics = [lines = diagnostics_](const std::string& line) {
                                 std::lock_guard lock(lines->mutex);
                                 lines->lines.push_back(line);
                               }};
    if (change) change(settings);
    return std::make_shared<Updater>(ui_, ui_, settings);
  }

  // The lines every updater made here wrote, from any thread.
  std::vector<std::string> diagnostics() const {
    std::lock_guard lock(diagnostics_->mutex);
    return diagnostics_->lines;
  }

  std::string url(const std::string& path) const { return "https://" + host_ + path; }
  // Whole, since the server may read it at any time. A manifest routed with a body is signed
  // with the trusted key unless the routes give its signature too.
  void route(json routes) const {
    const auto manifest = routes.find("/qor/latest.json");
    if (manifest != routes.end() && manifest->contains("body") &&
        !routes.contains("/qor/latest.json.sig")) {
      routes["/qor/latest.json.sig"] = {
          {"body", signingKey_.signatureFor((*manifest)["body"].get<std::string>())}};
    }
    EXPECT_TRUE(writeFileAtomically(root_ / "routes.json", routes.dump()));
  }

  // Publishes a bundle of 1.1.0 in `folder`, or `bytes` instead, at
  // /<name>.tar.gz and returns its asset. The new program leaves a mark.
  json publishImage(const std::string& name, const std::string& folder = "QOR Velmora",
                    const std::string& bytes = "") const {
    const auto build = root_ / name, archive = root_ / (name + ".tar.gz");
    makeBundle(build / folder, "1.1.0");
    if (!bytes.empty()) writeFile(archive, bytes);
    const auto pack =
        "[ -f \"$1\" ] || tar -czf \"$1\" -C \"$2\" \"$3\" && sha256sum \"$1\" >\"$2/sum\"";
    EXPECT_EQ(ChildProcess::run({"/bin/sh", {"-c", pack, "sh", archive, build, folder}}).value(),
              0);
    return {{"url", url("/" + name + ".tar.gz")},
            {"sha256", readFile(build / "sum").substr(0, 64)},
            {"size", std::filesystem::file_size(archive)}};
  }

  // Publishes `version` for `platforms`, with the manifest's signature.
  void publishUpdate(const json& platforms, const std::string& version = "1.1.0") const {
    const auto manifest = json{{"version", version}, {"platforms", platforms}}.dump();
    writeFile(root_ / "qor" / "latest.json", manifest);
    writeFile(root_ / "qor" / "latest.json.sig", signingKey_.signatureFor(manifest));
  }

  // Offers `asset` as 1.1.0 for this machine and accepts the update.
  void acceptUpdate(Updater& updater, const json& asset) {
    publishUpdate({{"linux-x64", asset}});
    ui_->answer = 0;
    updater.checkForUpdates();
  }

  const TemporaryFolder folder_{"qor-update"};
  const std::filesystem::path root_ = folder_.path();
  std::filesystem::path temporary_;  // the updater's temporary folder
  std::filesystem::path bundle_;     // the installed bundle
  std::string host_;
  std::shared_ptr<TestUI> ui_ = std::make_shared<TestUI>();
  const SigningKey signingKey_ = SigningKey::generate().value();
  std::shared_ptr<ChildProcess> server_;
  // Shared with the updaters' threads, which may outlive the test.
  struct Lines {
    std::mutex mutex;
    std::vector<std::string> lines;
  };
  const std::shared_ptr<Lines> diagnostics_ = std::make_shared<Lines>();
};

}  // namespace qor::testing
