#include <tessera/config.h>
#include <tessera/exception.h>

#include <gtest/gtest.h>

#include <string>

using namespace Tessera;
using Service::Config;

namespace {

Xml::Node Element(const std::string& name, const std::string& text) {
    Xml::Node node(name);
    node.SetText(text);
    return node;
}

// <config>
//   <log><maxFileSize> 10485760 </maxFileSize><enabled>TRUE</enabled><level>info</level></log>
//   <ThreadPool><IoMax>8</IoMax><IoMin>-2</IoMin></ThreadPool>
//   <refTracker><entry><className>A</className></entry><entry><className>B</className></entry></refTracker>
// </config>
Ref<Config> Sample() {
    Xml::Node root("config");
    Xml::Node& log = root.AddChild("log");
    log.AddChild(Element("maxFileSize", " 10485760\n"));
    log.AddChild(Element("enabled", "TRUE"));
    log.AddChild(Element("level", "info"));
    Xml::Node& pool = root.AddChild("ThreadPool");
    pool.AddChild(Element("IoMax", "8"));
    pool.AddChild(Element("IoMin", "-2"));
    Xml::Node& tracker = root.AddChild("refTracker");
    tracker.AddChild("entry").AddChild(Element("className", "A"));
    tracker.AddChild("entry").AddChild(Element("className", "B"));
    return Ref<Config>(new Config(std::move(root)));
}

} // namespace

TEST(ConfigView, TypedGettersAndDefaults) {
    Ref<Config> config = Sample();
    const Config::View root = config->GetView();
    EXPECT_EQ(root.GetInt64("log/maxFileSize", 1), 10485760);
    EXPECT_EQ(root.GetInt64("/log/maxFileSize", 1), 10485760); // a leading "/" is allowed
    EXPECT_EQ(root.GetInt("log/maxFileSize", 1), 10485760);
    EXPECT_TRUE(root.GetBool("log/enabled", false));
    EXPECT_EQ(root.GetString("log/level", "x"), "info");
    EXPECT_EQ(root.GetString("log/maxFileSize", ""), "10485760");

    // Absent keys give the defaults, at any depth.
    EXPECT_EQ(root.GetString("log/missing", "dflt"), "dflt");
    EXPECT_EQ(root.GetInt("nothing/here/at/all", -7), -7);
    EXPECT_FALSE(root.GetBool("log/level/deeper", false));
    EXPECT_TRUE(root.Has("ThreadPool/IoMax"));
    EXPECT_FALSE(root.Has("ThreadPool/IoMaxx"));

    // Child views read relative to their node and know their path.
    const Config::View pool = root.GetChild("ThreadPool");
    ASSERT_TRUE(pool.Exists());
    EXPECT_EQ(pool.GetPath(), "/ThreadPool");
    EXPECT_EQ(pool.GetInt("IoMax", 0), 8);
    EXPECT_EQ(pool.GetInt("/IoMin", 0), -2);
    const Config::View none = root.GetChild("NoSuchNode");
    EXPECT_FALSE(none.Exists());
    EXPECT_EQ(none.GetInt("IoMax", 3), 3);
    EXPECT_TRUE(none.GetEntries().empty());

    // Entries in document order, each read by its own sub-path.
    const auto entries = root.GetEntries("refTracker");
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].GetString("/className", ""), "A");
    EXPECT_EQ(entries[1].GetString("/className", ""), "B");
    EXPECT_EQ(entries[1].GetPath(), "/refTracker/entry");

    // A view keeps the tree alive after the last other reference is gone.
    Config::View kept = config->GetView().GetChild("log");
    config.Reset();
    EXPECT_EQ(kept.GetString("level", ""), "info");
}

TEST(ConfigView, BadValuesAreRefusedNeverDefaulted) {
    Xml::Node root("config");
    const char* booleans[][2] = {{"t1", "true"}, {"t2", "False"}, {"t3", "1"}, {"t4", "0"},
                                 {"b1", "yes"},  {"b2", "2"},     {"b3", ""}};
    for (auto& b : booleans) root.AddChild(Element(b[0], b[1]));
    const char* numbers[][2] = {{"n1", "+42"},
                                {"n2", "2147483647"},
                                {"n3", "-2147483648"},
                                {"n4", "2147483648"},
                                {"n5", "12abc"},
                                {"n6", "0x10"},
                                {"n7", ""},
                                {"n8", "+-3"},
                                {"n9", "-9223372036854775808"},
                                {"n10", "9223372036854775808"},
                                {"n11", "1 2"}};
    for (auto& n : numbers) root.AddChild(Element(n[0], n[1]));
    Ref<Config> config(new Config(std::move(root)));
    const Config::View v = config->GetView();

    EXPECT_TRUE(v.GetBool("t1", false));
    EXPECT_FALSE(v.GetBool("t2", true));
    EXPECT_TRUE(v.GetBool("t3", false));
    EXPECT_FALSE(v.GetBool("t4", true));
    for (const char* key : {"b1", "b2", "b3"}) {
        EXPECT_THROW(v.GetBool(key, true), InvalidArgumentException) << key;
    }
    try {
        v.GetBool("b1", true);
    } catch (const InvalidArgumentException& e) {
        const std::string text = e.what();
        EXPECT_EQ(text.rfind("Invalid argument : ", 0), 0u) << text;
        EXPECT_NE(text.find("'yes'"), std::string::npos) << text;
        EXPECT_NE(text.find("'/b1'"), std::string::npos) << text;
    }

    EXPECT_EQ(v.GetInt("n1", 0), 42);
    EXPECT_EQ(v.GetInt("n2", 0), 2147483647);
    EXPECT_EQ(v.GetInt("n3", 0), -2147483647 - 1);
    EXPECT_EQ(v.GetInt64("n4", 0), 2147483648LL);
    EXPECT_EQ(v.GetInt64("n9", 0), INT64_MIN);
    for (const char* key : {"n4", "n9"}) {
        EXPECT_THROW(v.GetInt(key, 0), NumberRangeException) << key;
    }
    EXPECT_THROW(v.GetInt64("n10", 0), NumberRangeException);
    for (const char* key : {"n5", "n6", "n7", "n8", "n11"}) {
        try {
            v.GetInt64(key, 0);
            ADD_FAILURE() << key << " was accepted";
        } catch (const NumberRangeException&) {
            ADD_FAILURE() << key << " is not a range error";
        } catch (const NumberFormatException& e) {
            EXPECT_NE(std::string(e.what()).find(std::string("'/") + key + "'"), std::string::npos)
                << e.what();
        }
    }
}

TEST(XmlNode, TextFormEscapesAndNests) {
    Xml::Node root("a");
    root.SetAttribute("x", "1 < 2 & \"q\"");
    root.SetAttribute("x", "it's"); // replaces, keeps one attribute
    root.SetText("t>");
    root.AddChild("empty");
    Xml::Node& b = root.AddChild("b");
    b.SetAttribute("k", "v");
    b.SetText("&");
    EXPECT_EQ(root.ToString(), "<a x=\"it&apos;s\">t&gt;<empty/><b k=\"v\">&amp;</b></a>");
    EXPECT_EQ(root.GetAttributes().size(), 1u);
    ASSERT_NE(root.FindChild("b"), nullptr);
    EXPECT_EQ(*root.FindChild("b")->FindAttribute("k"), "v");
    EXPECT_EQ(root.FindAttribute("y"), nullptr);
}
