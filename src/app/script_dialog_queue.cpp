#include "app/script_dialog_queue.h"

#include "app/product_name.h"

namespace qor {
namespace {

constexpr const char* confirmTitle = "请确认";
constexpr const char* okButton = "好";
constexpr const char* confirmButton = "确定";
constexpr const char* cancelButton = "取消";

AlertContent contentFor(WebKitScriptDialog* dialog) {
  const std::string message = webkit_script_dialog_get_message(dialog);
  switch (webkit_script_dialog_get_dialog_type(dialog)) {
    case WEBKIT_SCRIPT_DIALOG_CONFIRM:
      return {confirmTitle, message, AlertStyle::warning, {confirmButton, cancelButton}, {}};
    case WEBKIT_SCRIPT_DIALOG_PROMPT: {
      const char* defaultText = webkit_script_dialog_prompt_get_default_text(dialog);
      return {message,
              {},
              AlertStyle::informational,
              {confirmButton, cancelButton},
              defaultText ? defaultText : ""};
    }
    default:
      return {productName, message, AlertStyle::informational, {okButton}, {}};
  }
}

}  // namespace

ScriptDialogQueue::ScriptDialogQueue(GtkWindow* parent) : parent_(parent) {}

ScriptDialogQueue::~ScriptDialogQueue() {
  if (showSource_) g_source_remove(showSource_);
  current_.reset();
  for (auto& dialog : pending_) webkit_script_dialog_close(dialog.get());
}

void ScriptDialogQueue::enqueue(WebKitScriptDialog* dialog) {
  // Leaving the page is not asked about: the navigation simply proceeds.
  if (webkit_script_dialog_get_dialog_type(dialog) == WEBKIT_SCRIPT_DIALOG_BEFORE_UNLOAD_CONFIRM) {
    webkit_script_dialog_confirm_set_confirmed(dialog, true);
    return;
  }
  pending_.push_back(ScriptDialogPtr::adopt(webkit_script_dialog_ref(dialog)));
  if (!current_) scheduleNext();
}

void ScriptDialogQueue::scheduleNext() {
  if (showSource_ || pending_.empty()) return;
  showSource_ = g_idle_add(onShowNext, this);
}

gboolean ScriptDialogQueue::onShowNext(gpointer self) {
  auto* queue = static_cast<ScriptDialogQueue*>(self);
  queue->showSource_ = 0;
  queue->showNext();
  return G_SOURCE_REMOVE;
}

void ScriptDialogQueue::showNext() {
  if (current_ || pending_.empty()) return;
  current_ = std::make_unique<AlertWindow>(parent_, contentFor(pending_.front().get()),
                                           [this](const AlertAnswer& result) { answer(result); });
}

void ScriptDialogQueue::answer(const AlertAnswer& answer) {
  WebKitScriptDialog* dialog = pending_.front().get();
  const bool firstButton = answer.button == 0;
  switch (webkit_script_dialog_get_dialog_type(dialog)) {
    case WEBKIT_SCRIPT_DIALOG_CONFIRM:
      webkit_script_dialog_confirm_set_confirmed(dialog, firstButton);
      break;
    case WEBKIT_SCRIPT_DIALOG_PROMPT:
      // Without a text the page's prompt() returns null.
      if (firstButton) webkit_script_dialog_prompt_set_text(dialog, answer.fieldText.c_str());
      break;
    default:
      break;
  }
  webkit_script_dialog_close(dialog);
  pending_.pop_front();
  current_.reset();
  scheduleNext();
}

}  // namespace qor
