// The document framework and the bridging types over Qt.
#include "kit/Document.h"
#include "kit/QtBridge.h"
#include "kit/UserDefaults.h"

#include <QMainWindow>

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <sstream>
#include <thread>

namespace {

TEST(Kit, StringWrapperOrdersLiterally)
{
    EXPECT_TRUE(NSStringWrapper("B") < NSStringWrapper("a")); // case-sensitive
    EXPECT_FALSE(NSStringWrapper("a") < NSStringWrapper("B"));
    NSStringWrapper fromNull{QString()};
    EXPECT_TRUE(fromNull == NSStringWrapper());
    EXPECT_FALSE(fromNull < NSStringWrapper());
    EXPECT_FALSE(NSStringWrapper() < fromNull);
    NSStringWrapper left("Sync"), right(" point");
    NSStringWrapper both = left + right;
    EXPECT_EQ(both.asString(), "Sync point");
    EXPECT_EQ(left.asString(), "Sync");
    EXPECT_EQ(right.asString(), " point");
    EXPECT_EQ(NSStringWrapper(char16_t(0xF703)).string(), QString(QChar(0xF703)));
    // Equal keys keep the order they were entered in.
    std::multimap<NSStringWrapper, int> table;
    table.emplace(NSStringWrapper("\r"), 1);
    table.emplace(NSStringWrapper("\r"), 3);
    table.emplace(NSStringWrapper("\r"), 11);
    std::vector<int> order;
    auto range = table.equal_range(NSStringWrapper("\r"));
    for (auto it = range.first; it != range.second; ++it) order.push_back(it->second);
    EXPECT_EQ(order, (std::vector<int>{1, 3, 11}));
    std::ostringstream os;
    os << QString::fromUtf8("Dubmatch \u2192");
    EXPECT_EQ(os.str(), "Dubmatch \xE2\x86\x92");
}

TEST(Kit, DefaultsLayerTheUsersValuesOverTheFactoryOnes)
{
    auto& d = kit::Defaults::standard();
    EXPECT_FALSE(d.registerDefaultsFromPlist("not a plist"));
    EXPECT_FALSE(d.registerDefaultsFromPlist("<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>"));
    EXPECT_TRUE(d.registerDefaultsFromPlist("<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
                                            "<key>kitTestSign</key><integer>-1</integer>"
                                            "<key>kitTestLength</key><real>2.5</real>"
                                            "<key>kitTestFlag</key><true/></dict></plist>"));
    EXPECT_EQ(static_cast<int>(kit::UserDefaults<int>("kitTestSign")), -1);
    EXPECT_FLOAT_EQ(static_cast<float>(kit::UserDefaults<float>("kitTestLength")), 2.5f);
    EXPECT_TRUE(static_cast<bool>(kit::UserDefaults<bool>("kitTestFlag")));
    EXPECT_EQ(static_cast<int>(kit::UserDefaults<int>("kitTestNeverSet")), 0);
    EXPECT_FALSE(static_cast<bool>(kit::UserDefaults<bool>("kitTestNeverSet")));

    kit::UserDefaults<bool> flag("kitTestFlag");
    flag = false;
    EXPECT_FALSE(static_cast<bool>(flag));
    d.removeValue("kitTestFlag");
    EXPECT_TRUE(static_cast<bool>(flag)); // the factory value shows again

    // One recursive lock: a thread holding it may read again; others wait.
    std::optional<kit::UserDefaultsLock> held;
    held.emplace();
    EXPECT_EQ(static_cast<int>(kit::UserDefaults<int>("kitTestSign")), -1);
    std::thread other([] { kit::UserDefaults<int>("kitTestSign") = 5; });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(static_cast<int>(kit::UserDefaults<int>("kitTestSign")), -1); // the writer still waits
    held.reset();
    other.join();
    EXPECT_EQ(static_cast<int>(kit::UserDefaults<int>("kitTestSign")), 5);
    d.removeValue("kitTestSign");
}

class PlainDocument : public kit::Document {
public:
    bool readFromFile(QString const&, QString const&) override { return true; }
    bool writeToFile(QString const&, QString const&, kit::SaveOperation) override { return true; }
};

TEST(Kit, ChangeCountAndTitle)
{
    PlainDocument doc;
    auto* window = new QMainWindow;
    doc.addWindowController(new kit::WindowController("Plain", window));
    doc.setFileName("/movies/Interview.mov");
    EXPECT_EQ(doc.displayName(), "Interview.mov");
    EXPECT_FALSE(doc.isDocumentEdited());
    EXPECT_FALSE(window->isWindowModified());
    doc.updateChangeCount(kit::ChangeType::Done);
    EXPECT_TRUE(window->isWindowModified());
    doc.updateChangeCount(kit::ChangeType::Undone);
    EXPECT_FALSE(doc.isDocumentEdited());
    doc.updateChangeCount(kit::ChangeType::Undone); // a point deleted from a fresh movie
    EXPECT_EQ(doc.changeCount(), -1);
    EXPECT_TRUE(doc.isDocumentEdited());
    doc.updateChangeCount(kit::ChangeType::Cleared);
    EXPECT_EQ(doc.changeCount(), 0);
    EXPECT_EQ(window->windowTitle(), "Interview.mov[*]");
}

} // namespace
