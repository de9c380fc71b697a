// Log lines of the manifest store's updates, insertion and deletion,
// including refused ids, compared with tests/data/store/updates.expected.
#include <gtest/gtest.h>

#include "DataBase/PluginStorageManager.h"
#include "common/Singleton.h"
#include "support/Golden.h"
#include "support/LogCapture.h"
#include "support/RecordingRunner.h"
#include "support/TestSupport.h"

namespace {

template <typename Call>
std::string outcome(const std::string& title, Call call) {
    testsupport::LogCapture log;
    const bool result = call();
    return "## " + title + " -> " + (result ? "true" : "false") + "\n" + testsupport::logText(log);
}

}  // namespace

TEST(ManifestStoreGolden, UpdatesInsertionAndDeletion) {
    const auto runner = testsupport::RecordingRunner::sInstall();
    PluginStorageManager* store = Singleton<PluginStorageManager>::instance();
    const std::string manifest = testsupport::underRoot("/userdisk/appdata/61/etc/manifest");
    testsupport::writeFile(manifest, "plugin_id = \"61\";\nname = \"Sixty-one\";\n");
    store->getPluginInfos();

    datacenter::PluginInfo record;
    record.id = "61";
    std::string text;
    text += outcome("insert", [&] { return store->insertToStorage("61", manifest, record); });
    text += outcome("insert without id", [&] { return store->insertToStorage("", manifest, record); });
    text += outcome("insert with unsafe id", [&] { return store->insertToStorage("../x", manifest, record); });
    text += outcome("update status", [&] { return store->updateStatusToStorage("61", datacenter::ENABLED); });
    text += outcome("update status without id", [&] { return store->updateStatusToStorage("", datacenter::ENABLED); });
    text +=
        outcome("update status of unknown id", [&] { return store->updateStatusToStorage("62", datacenter::ENABLED); });
    text += outcome("update use status",
                    [&] { return store->updateUseStatusToStorage("61", static_cast<datacenter::PluginUseStatus>(1)); });
    text += outcome("lookup without id", [&] { return store->getPluginInfoById("").id.empty(); });
    text += outcome("delete", [&] { return store->deleteInStorage("61"); });
    text += outcome("delete without id", [&] { return store->deleteInStorage(""); });
    text += outcome("delete with unsafe id", [&] { return store->deleteInStorage("a/b"); });
    EXPECT_GOLDEN("store/updates", text);
}
