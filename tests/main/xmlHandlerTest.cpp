#include <tessera/exception.h>
#include <tessera/xmlParser.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

using namespace Tessera;
namespace fs = std::filesystem;

namespace {

class TempDir {
public:
    TempDir() : _path(fs::temp_directory_path() / ("tessera-xml-" + std::to_string(std::rand()))) {
        fs::create_directories(_path);
    }
    ~TempDir() {
        std::error_code ignored;
        fs::permissions(_path / "locked.xml", fs::perms::owner_all, ignored);
        fs::remove_all(_path, ignored);
    }
    std::string Write(const std::string& name, const std::string& content) const {
        const fs::path file = _path / name;
        std::ofstream(file, std::ios::binary) << content;
        return file.string();
    }
    fs::path Path() const { return _path; }

private:
    fs::path _path;
};

// Runs `parse` and returns the message of the exception of type E it throws.
template <class E, class F>
std::string MessageOf(F parse) {
    try {
        parse();
    } catch (const E& e) {
        return e.what();
    } catch (const std::exception& e) {
        return std::string("wrong exception: ") + typeid(e).name() + ": " + e.what();
    }
    return "no exception";
}

} // namespace

TEST(XmlParser, BuildsTheTreeInDocumentOrder) {
    const Xml::Node root = Xml::Parse(
        "<?xml version=\"1.0\"?>\n"
        "<config version=\"2\">\n"
        "  <log level=\"info\"><dir>/var/log/svc</dir><dir>second</dir></log>\n"
        "  <name>caf\xC3\xA9 &amp; &#x41;</name>\n"
        "  <!-- a comment --><empty/>\n"
        "</config>");
    EXPECT_EQ(root.GetName(), "config");
    ASSERT_NE(root.FindAttribute("version"), nullptr);
    EXPECT_EQ(*root.FindAttribute("version"), "2");
    ASSERT_EQ(root.GetChildren().size(), 3u);
    EXPECT_EQ(root.GetChildren()[0].GetName(), "log");
    EXPECT_EQ(root.GetChildren()[1].GetText(), "caf\xC3\xA9 & A");
    EXPECT_EQ(root.GetChildren()[2].GetName(), "empty");
    const Xml::Node& log = root.GetChildren()[0];
    ASSERT_EQ(log.GetChildren().size(), 2u);
    EXPECT_EQ(log.GetChildren()[1].GetText(), "second");

    // The text form parses back to the same text form.
    const std::string text = root.ToString();
    EXPECT_EQ(Xml::Parse(text).ToString(), text);
}

// Found by fuzzing: characters the parser normalises, and white space split
// into several pieces by the parser, survive a round trip through the text form.
TEST(XmlParser, TheTextFormParsesBackToTheSameTree) {
    const Xml::Node root = Xml::Parse("<a x='&#9;&#10;&#13;'>x&#13;<b/> \n y<c/> \n <d/>\r\n</a>");
    EXPECT_EQ(*root.FindAttribute("x"), "\t\n\r");
    EXPECT_EQ(root.GetText(), "x\r \n y");
    const std::string text = root.ToString();
    EXPECT_EQ(text, "<a x=\"&#9;&#10;&#13;\">x&#13; \n y<b/><c/><d/></a>");
    const Xml::Node again = Xml::Parse(text);
    EXPECT_EQ(*again.FindAttribute("x"), "\t\n\r");
    EXPECT_EQ(again.GetText(), root.GetText());
    EXPECT_EQ(again.ToString(), text);

    // Attribute values count as character data, entities expanded.
    Xml::ParseLimits limits;
    limits.maxBytes = 1000;
    EXPECT_THROW(Xml::Parse("<!DOCTYPE a [<!ENTITY e '" + std::string(300, 'v') +
                                "'>]><a x='&e;&e;&e;&e;'/>",
                            limits),
                 Xml::ParsingAbortedException);
}

TEST(XmlParser, MalformedInputNamesWhereAndWhy) {
    const std::string bad =
        MessageOf<Xml::XMLParseException>([] { Xml::Parse("<a>\n  <b></c>\n</a>"); });
    EXPECT_NE(bad.find("line 2, column 8"), std::string::npos) << bad;
    EXPECT_NE(bad.find("mismatched tag"), std::string::npos) << bad;

    try {
        Xml::Parse("<a>\xff\xfe</a>"); // not UTF-8
        ADD_FAILURE();
    } catch (const Xml::XMLParseException& e) {
        EXPECT_NE(e.ErrorCode(), 0);
    }
    EXPECT_THROW(Xml::Parse("<a><b>unfinished"), Xml::XMLParseException);
    EXPECT_THROW(Xml::Parse(""), Xml::XMLParseException);
    EXPECT_THROW(Xml::Parse("<a/><b/>"), Xml::XMLParseException);

    TempDir dir;
    const std::string path = dir.Write("broken.xml", "<config>\n<log>\n</config>");
    const std::string inFile = MessageOf<Xml::XMLParseException>([&] { Xml::ParseFile(path); });
    EXPECT_NE(inFile.find("'" + path + "'"), std::string::npos) << inFile;
    EXPECT_NE(inFile.find("line 3"), std::string::npos) << inFile;
}

// The classic attacks on XML parsers: each ends in a clear exception, quickly,
// without reading anything outside the document.
TEST(XmlParser, HostileDocumentsAreRefused) {
    const auto start = std::chrono::steady_clock::now();

    std::string laughs = "<?xml version=\"1.0\"?>\n<!DOCTYPE lolz [\n<!ENTITY lol \"lol\">\n";
    laughs += "<!ENTITY lol1 \"&lol;&lol;&lol;&lol;&lol;&lol;&lol;&lol;&lol;&lol;\">\n";
    for (int i = 2; i <= 9; ++i) {
        laughs += "<!ENTITY lol" + std::to_string(i) + " \"";
        for (int j = 0; j < 10; ++j) laughs += "&lol" + std::to_string(i - 1) + ";";
        laughs += "\">\n";
    }
    laughs += "]>\n<lolz>&lol9;</lolz>";
    try {
        Xml::Parse(laughs);
        ADD_FAILURE() << "a billion laughs parsed";
    } catch (const Xml::XMLParseException&) { // the parser's own amplification guard
    } catch (const Xml::ParsingAbortedException&) { // or our bound on character data
    }

    TempDir dir;
    const std::string secret = dir.Write("secret.txt", "SECRET-CONTENT");
    const std::string external =
        "<?xml version=\"1.0\"?>\n<!DOCTYPE a [<!ENTITY e SYSTEM \"file://" + secret +
        "\">]>\n<a>&e;</a>";
    const std::string refused =
        MessageOf<Xml::ParsingAbortedException>([&] { Xml::Parse(external); });
    EXPECT_NE(refused.find("external entity 'e' refused"), std::string::npos) << refused;
    // An external DTD is not fetched either; the document itself is fine.
    EXPECT_EQ(Xml::Parse("<!DOCTYPE a SYSTEM \"file://" + secret + "\"><a>x</a>").GetText(), "x");

    std::string deep;
    for (int i = 0; i < 100000; ++i) deep += "<a>";
    for (int i = 0; i < 100000; ++i) deep += "</a>";
    const std::string tooDeep = MessageOf<Xml::ParsingAbortedException>([&] { Xml::Parse(deep); });
    EXPECT_NE(tooDeep.find("deeper than the limit of 256"), std::string::npos) << tooDeep;

    Xml::ParseLimits small;
    small.maxBytes = 1000;
    small.maxDepth = 3;
    EXPECT_THROW(Xml::Parse("<a>" + std::string(2000, 'x') + "</a>", small),
                 Xml::ParsingAbortedException);
    EXPECT_THROW(Xml::Parse("<a><b><c><d/></c></b></a>", small), Xml::ParsingAbortedException);
    EXPECT_NO_THROW(Xml::Parse("<a><b><c/></b></a>", small));
    const std::string big = dir.Write("big.xml", "<a>" + std::string(200000, 'x') + "</a>");
    EXPECT_THROW(Xml::ParseFile(big, small), Xml::ParsingAbortedException);
    // A file over the limit is refused from its size, before any of it is
    // read: the broken start of this one is never seen.
    small.maxBytes = 100000;
    const std::string large = dir.Write("large.xml", "<broken" + std::string(199993, ' '));
    const std::string bySize =
        MessageOf<Xml::ParsingAbortedException>([&] { Xml::ParseFile(large, small); });
    EXPECT_NE(bySize.find("'" + large + "' is larger (200000 bytes) than the limit of 100000"),
              std::string::npos)
        << bySize;

    // Attributes are added in linear time: a single element with 200,000 of
    // them would take minutes if each were compared with those before it.
    std::string wide = "<a";
    for (int i = 0; i < 200000; ++i)
        wide += " a" + std::to_string(i) + "='" + std::to_string(i) + "'";
    wide += "/>";
    const Xml::Node many = Xml::Parse(wide);
    ASSERT_EQ(many.GetAttributes().size(), 200000u);
    EXPECT_EQ(many.GetAttributes().back(), Xml::Node::Attribute("a199999", "199999"));
    EXPECT_THROW(Xml::Parse("<a x='1' y='2' x='3'/>"), Xml::XMLParseException);
    // So is text that only looks like indentation until its end, however many
    // children follow it.
    std::string spaced = "<a>" + std::string(200000, ' ') + "x";
    for (int i = 0; i < 20000; ++i) spaced += "<b/>";
    EXPECT_EQ(Xml::Parse(spaced + "</a>").GetChildren().size(), 20000u);

    // Under a second in a debug build. The bound is for work that grows
    // faster than the documents (an entity expansion, a quadratic look-up
    // over the 200000 attributes), with room for a busy machine.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(120));
}

// The tree's size is bounded by a count of its elements and attributes,
// whether they are written out or come from an entity.
TEST(XmlParser, TheNodeBudgetBoundsTheTree) {
    Xml::ParseLimits limits;
    limits.maxNodes = 6;
    const Xml::Node full = Xml::Parse("<a x='1'><b/><c y='2' z='3'/></a>", limits);
    EXPECT_EQ(full.GetChildren().size(), 2u);
    const std::string refused = MessageOf<Xml::ParsingAbortedException>(
        [&] { Xml::Parse("<a x='1'><b/><c y='2' z='3' w='4'/></a>", limits); });
    EXPECT_NE(refused.find("more elements and attributes than the limit of 6"), std::string::npos)
        << refused;
    EXPECT_THROW(Xml::Parse("<a><b/><b/><b/><b/><b/><b/></a>", limits),
                 Xml::ParsingAbortedException);

    // A document of a few hundred bytes whose entities expand to a million
    // elements, well under the parser's own guard against amplification.
    std::string expanding =
        "<!DOCTYPE r [<!ENTITY e0 \"<a/><a/><a/><a/><a/><a/><a/><a/><a/><a/>\">";
    for (int i = 1; i <= 5; ++i) {
        expanding += "<!ENTITY e" + std::to_string(i) + " \"";
        for (int j = 0; j < 10; ++j) expanding += "&e" + std::to_string(i - 1) + ";";
        expanding += "\">";
    }
    expanding += "]><r>&e5;</r>";
    limits.maxNodes = 10000;
    const std::string expanded =
        MessageOf<Xml::ParsingAbortedException>([&] { Xml::Parse(expanding, limits); });
    EXPECT_NE(expanded.find("limit of 10000"), std::string::npos) << expanded;
}

TEST(XmlParser, FileErrorsNameThePath) {
    TempDir dir;
    const std::string missing = (dir.Path() / "missing.xml").string();
    const std::string notFound =
        MessageOf<FileIONotFoundException>([&] { Xml::ParseFile(missing); });
    EXPECT_NE(notFound.find(missing), std::string::npos) << notFound;

    // A directory opens on some systems and not on others; it never parses.
    EXPECT_THROW(Xml::ParseFile(dir.Path().string()), FileIOException);

    const std::string locked = dir.Write("locked.xml", "<a/>");
    fs::permissions(locked, fs::perms::none);
    if (std::FILE* probe = std::fopen(locked.c_str(), "rb")) {
        std::fclose(probe); // privileged user: permissions do not apply
    } else {
        const std::string denied =
            MessageOf<FileIOPermissionDeniedException>([&] { Xml::ParseFile(locked); });
        EXPECT_NE(denied.find(locked), std::string::npos) << denied;
    }
}

// Paths are UTF-8 everywhere: on Windows too, a name outside the ANSI code
// page opens. The indentation of the file is no part of its values.
TEST(XmlParser, LoadsAServiceConfigurationByAUtf8Name) {
    TempDir dir;
    const std::string name =
        "\xD0\xBA\xD0\xBE\xD0\xBD\xD1\x84\xD0\xB8\xD0\xB3-"
        "\xE8\xA8\xAD\xE5\xAE\x9A-\xCE\xB1.xml"; // Cyrillic, CJK, Greek
    const fs::path file = dir.Path() / fs::u8path(name);
    std::ofstream(file, std::ios::binary)
        << "<config>\n  <log>\n    <maxFileSize>1048576</maxFileSize>\n  </log>\n"
           "  <ThreadPool><TaskMax>16</TaskMax></ThreadPool>\n</config>\n";
    Ref<Service::Config> config;
    Service::LoadConfigFile(file.u8string(), config);
    ASSERT_FALSE(config.IsNull());
    EXPECT_EQ(config->GetView().GetInt64("log/maxFileSize", 0), 1048576);
    EXPECT_EQ(config->GetView().GetChild("ThreadPool").GetInt("TaskMax", 0), 16);

    const std::string missing = (dir.Path() / fs::u8path("\xCE\xB2.xml")).u8string();
    const std::string notFound =
        MessageOf<FileIONotFoundException>([&] { Xml::ParseFile(missing); });
    EXPECT_NE(notFound.find(missing), std::string::npos) << notFound;

    Service::LoadConfigText("<config><a>yes</a></config>", config);
    EXPECT_THROW(config->GetView().GetBool("a", false), InvalidArgumentException);
}
