// The project descriptor at the limits of its texts, on both processors.
#include "XmlExtractor.h"
#include "harness/bank_texts.h"
#include "platform/host/host_kernel.h"
#include "tests/processors.h"

#include <fmt/format.h>
#include <memory_map.h>

namespace fixture {

namespace {

using Texts = DescriptorTexts;

std::string Application(const Texts &texts) { return DescriptorElement("MainApplication", texts); }
const std::string kBoot = DescriptorElement("SecondaryBootloader", {"loader", ".img", "1.9.1"});
const std::string kRescue = DescriptorElement("RescueApplication", {"help", "bin", "7"});

class Descriptor : public OnBoard {
protected:
    int parse(const std::string &path) {
        call_with("PrjDsc_SetPathFilename", path);
        return call("PrjDsc_Parse");
    }
    int parse_text(const std::string &text) {
        volume.write("d.xml", text);
        return parse("i:/vol0/d.xml");
    }
    int type(const std::string &path) { return call_with("PrjDsc_GetFileType", path); }
    std::string version(int of) { return given(call("PrjDsc_GetVersion", of)); }
};
BOTH_PROCESSORS(Descriptor);

TEST_P(Descriptor, TypesFilesByWhatStandsInTheirPaths) {
    EXPECT_EQ(type("anything"), 4) << "before the first parse";
    ASSERT_EQ(parse_text("<?xml version=\"1.0\"?>\n<P>" + Application({}) + "<Q>" + kBoot + kRescue + "</Q></P>"), 0);
    const std::pair<const char *, int> rows[] = {
        {"i:/vol0/data/app/bin/demo.bin", 2},      {"i:/vol0/data/app/bin/loader.img", 0},
        {"i:/vol0/data/app/bin/help.bin", 1},      {"i:/vol0/data/app/bin/Demo.bin", 4},
        {"i:/vol0/data/app/bin/demo.img", 4},      {"i:/vol0/data/app/bin/demo_loader.img", 0},
        {"i:/vol0/data/app/bin/help_demo.bin", 1}, {"i:/vol0/data/help/bin/x.bin", 1},
        {"i:/vol0/data/app/bin/demo.bin.old", 2},  {"", 4},
    };
    for (const auto &[path, expected] : rows) EXPECT_EQ(type(path), expected) << path;
    EXPECT_EQ(version(0) + " " + version(1) + " " + version(2), "1.9.1 7 1.0");
    EXPECT_EQ(parse_text("<P>" + Application({}) + kBoot + "</P>"), 0);
    EXPECT_EQ(type("help.bin"), 4) << "nothing is left of the last descriptor";
    EXPECT_EQ(version(1), "");
    EXPECT_EQ(started.console(), "");
}

TEST_P(Descriptor, TakesTextsUpToTheirLimits) {
    const std::string names = "<BaseFileName>demo</BaseFileName><BaseFileExtension/></MainApplication>";
    const std::string dots = "." + std::string(15, 'e');
    // The last text is typed as application where the parse is good.
    const std::tuple<const char *, std::string, int, std::string> rows[] = {
        {"base name 256", Application({.base = std::string(256, 'b')}), 0, std::string(256, 'b') + ".bin"},
        {"base name 257", Application({.base = std::string(257, 'b')}), -1, ""},
        {"empty base name", Application({.base = ""}), 0, "x.bin"},
        {"extension 16", Application({.extension = std::string(16, 'e')}), 0, "demo." + std::string(16, 'e')},
        {"extension 16 with dot", Application({.extension = dots}), 0, "demo" + dots},
        {"extension 17", Application({.extension = "." + std::string(16, 'e')}), -1, ""},
        {"empty extension", Application({.extension = ""}), 0, "demo."},
        {"version 16", Application({.version = std::string(16, 'v')}), 0, "demo.bin"},
        {"version 17", Application({.version = std::string(17, 'v')}), -1, ""},
        {"<Version/>", "<MainApplication><Version/>" + names, 0, "demo."},
        {"no version", "<MainApplication>" + names, -1, ""},
        {"two, the first counts", Application({.base = "first"}) + Application({}), 0, "first.bin"},
        {"a longer name before", DescriptorElement("MainApplicationOld", {.base = "old"}) + Application({}), 0,
         "old.bin"},
        {"none", "", -1, ""},
    };
    for (const auto &[name, application, result, matching] : rows) {
        EXPECT_EQ(parse_text("<P>" + kBoot + application + "</P>"), result) << name;
        EXPECT_TRUE(result != 0 || type("i:/vol0/" + matching) == 2) << name;
        EXPECT_EQ(type("i:/vol0/loader.img"), 0) << name << ": the bootloader's entry stands in any case";
        EXPECT_EQ(started.console(), "") << name;
    }
    EXPECT_EQ(parse_text("<P>" + Application({}) + "</P>"), -1) << "no bootloader";
}

TEST_P(Descriptor, SaysWhyItCannotBeRead) {
    const std::string missing = "FileSize failed with errno=2\tFatal Error : read file failed with errno=9";
    EXPECT_EQ(parse("i:/vol0/no.xml"), -1);
    EXPECT_EQ(started.console(), missing);
    const std::string far = std::string(200, 'd') + "/" + std::string(60, 'f');
    volume.write(far, "<P>" + Application({}) + kBoot + "</P>");
    EXPECT_EQ(parse("i:/vol0/" + far), -1) << "cut at 256 characters";
    EXPECT_EQ(started.console(), missing);
    volume.write(far.substr(0, 256 - 8), "<P>" + Application({}) + kBoot + "</P>");
    EXPECT_EQ(parse("i:/vol0/" + far), 0) << "all 256 count";
    EXPECT_EQ(started.console(), "");
    volume.write("large.xml", std::string(5 << 20, ' '));
    EXPECT_EQ(parse("i:/vol0/large.xml"), -1);
    EXPECT_EQ(started.console(), "\tFatal Error : read file failed with errno=12") << "larger than the heap";
    EXPECT_EQ(parse_text(""), -1);
    EXPECT_EQ(parse_text("<P>" + Application({}) + kBoot), -1) << "never closed";
    EXPECT_EQ(started.console(), "");
}

// The XML reader and its tree, on this machine: they touch no hardware.

std::string Name(int number) { return fmt::format("n{}", number); }
std::int32_t Length(std::string_view text) { return static_cast<std::int32_t>(text.size()); }

class Xml : public testing::Test {
protected:
    Xml() { ReleaseModuleHeap(); }
    ~Xml() override { ReleaseModuleHeap(); }

    int parse(const std::string &text) {
        XmlElement_SetupRoot(&root, nullptr, 0);
        XmlElement_SetDynamicString(&root.value, &root.value_length, text.data(), Length(text));
        return XmlExtractor_Parse(&root);
    }
    XmlElement *find(std::string_view parent, std::string_view child, XmlElement *start = nullptr) {
        return XmlElement_FindChildElement(start ? start : &root, parent.data(), Length(parent), child.data(),
                                           Length(child));
    }
    static std::string value(const XmlElement *element) {
        if (!element) return "(none)";
        return element->value ? std::string(element->value, static_cast<std::size_t>(element->value_length)) : "(null)";
    }
    // name=value(children), in document order. Checks the links on its way.
    static std::string show(const XmlElement &parent) {
        std::string text;
        const XmlElement *previous = nullptr;
        for (const XmlElement *e = parent.child; e; previous = e, e = e->next) {
            EXPECT_EQ(e->parent, &parent);
            EXPECT_EQ(e->previous, previous);
            const std::string name(e->name, static_cast<std::size_t>(e->name_length));
            text += (previous ? " " : "") + name + "=" + value(e) + (e->child ? "(" + show(*e) + ")" : "");
        }
        return text;
    }
    // Whether just so many bytes were not given back: the heap takes one block of all the rest, and not a byte more.
    static bool heap_keeps(std::size_t kept) {
        static const std::vector<char> bytes(kHeapSize);
        const auto fits = [](std::size_t count) {
            char *field = nullptr;
            std::int32_t length = 0;
            XmlElement_SetDynamicString(&field, &length, bytes.data(), static_cast<std::int32_t>(count));
            const bool got = field != nullptr;
            XmlElement_SetDynamicString(&field, &length, nullptr, -1);
            return got;
        };
        return fits(kHeapSize - kept) && !fits(kHeapSize - kept + 1);
    }

    XmlElement root{};
};

TEST_F(Xml, MakesATreeOfTheSubsetItKnows) {
    const std::string longest(255, 't'), too_long(256, 't'), far(1023, 'c'), too_far(1024, 'c');
    const std::tuple<std::string, std::string> rows[] = {
        {"", ""},
        {"no tags, a > alone", ""},
        {"<?xml version=1.0?><a>1</a>", "a=1"},
        {"<a><b>1</b><c/></a>", "a=<b>1</b><c/>(b=1 c/=(null))"},
        {"<a/><b></b>", "a/=(null) b="},
        {"<a><a>x</a></a><b>1</b>", "a=<a>x b=1"},
        {"<!-- note --><a>1</a>", ""},
        {"<a x=\"1\">v</a><b>1</b>", ""},
        {"<b>1</b><a>", "b=1"},
        {"<b>1</b><", "b=1"},
        {"<b>1</b><a", "b=1"},
        {"</x></y/><?></?><a>1</a>", "a=1"},
        {"<a<b>1</b>", "b=1"},
        {"<><a>1</a></>", ""},
        {"<a >1</a ><A>2</A>", "a =1 A=2"},
        {"<a>1</ab></aa></a>", "a=1</ab></aa>"},
        {"<v>\n 1.2\n</v>", "v=\n 1.2\n"},
        {std::string("<a>\0</a>", 8), std::string("a=\0", 3)},
        {"<" + longest + ">1</" + longest + ">", longest + "=1"},
        {"<b>1</b><" + too_long + ">1</" + too_long + "><c>1</c>", "b=1"},
        {"<b/><a><" + far + "></a><c/>", "b/=(null) a=<" + far + "> c/=(null)"},
        {"<b/><a><" + too_far + "></a><c/>", "b/=(null)"},
    };
    for (const auto &[text, tree] : rows) {
        EXPECT_EQ(parse(text), tree.empty() ? 0 : 1) << text;
        EXPECT_EQ(show(root), tree) << text;
    }
    parse("<a>1</a>");
    XmlElement_SetDynamicString(&root.value, &root.value_length, "<b><c>1</c></b>", 15);
    EXPECT_EQ(XmlExtractor_Parse(&root), 1);
    EXPECT_EQ(show(root), "a=1 b=<c>1</c>(c=1)") << "a second parse appends";
}

TEST_F(Xml, FetchesTokensWithinBounds) {
    char token[8] = {};
    const std::tuple<std::string_view, std::int32_t, std::int32_t, std::int32_t, std::int32_t> rows[] = {
        {"<abc>", 0, 4, 5, 3}, {"<abc>", 0, 3, -1, 3},  {"<abc>", 1, 8, -1, 8},  {"x<>", 0, 8, 3, 0},
        {"<a", 0, 8, -1, 8},   {"<abc>", -1, 8, -1, 8}, {"<abc>", 99, 8, -1, 8}, {"<ab<c>", 0, 8, 6, 1},
    };
    for (const auto &[text, position, capacity, result, found] : rows) {
        std::int32_t length = capacity;
        EXPECT_EQ(XmlExtractor_FindNextToken(text.data(), Length(text), position, token, &length), result) << text;
        EXPECT_EQ(length, found) << text;
    }
    EXPECT_EQ(XmlExtractor_FindEndToken("</a>", 4, -1, "a", 1), -1);
    const std::pair<std::string_view, int> types[] = {{"", 0},    {"a", 0},  {"/a", 1},  {"a/", 2},
                                                      {"?a?", 3}, {"?", 3},  {"/a/", 4}, {"/", 4},
                                                      {"?/", 2},  {"/?", 1}, {"?a", 0},  {"!-- --", 0}};
    for (const auto &[text, type] : types)
        EXPECT_EQ(XmlExtractor_GetTokenType(text.data(), Length(text)), type) << text;
}

TEST_F(Xml, FindsTheFirstInDocumentOrderByBeginnings) {
    parse("<P><AppOld><Version>1</Version></AppOld><App><VersionX>2</VersionX><Version>3</Version></App>"
          "<Q><Boot><Version/></Boot></Q><Version>4</Version></P>");
    EXPECT_EQ(value(find("App", "Version")), "1");
    EXPECT_EQ(value(find("App", "VersionX")), "2");
    EXPECT_EQ(value(find("Boot", "Version")), "(null)");
    EXPECT_EQ(value(find("P", "Version")), "4");
    EXPECT_EQ(find("App", "version"), nullptr);
    EXPECT_EQ(find("App", "VersionXY"), nullptr);
    XmlElement *old = find("P", "AppOld");
    EXPECT_EQ(find("P", "App", old), nullptr) << "neither the start nor its siblings";
    EXPECT_EQ(find("App", "Version", find("App", "Version")), nullptr) << "a leaf";
    EXPECT_EQ(XmlElement_MoveTo(old, 7), root.child);
    EXPECT_EQ(XmlElement_MoveTo(old, 1), old->child);
    EXPECT_EQ(XmlElement_MoveTo(old->next, 2), old);
    EXPECT_TRUE(XmlElement_IsChild(old) && XmlElement_IsNext(old->next));
    EXPECT_FALSE(XmlElement_IsNext(old) || XmlElement_IsChild(&root) || XmlElement_IsNext(&root));
}

TEST_F(Xml, CleansChildrenOrElseSiblings) {
    constexpr std::size_t kRecord = sizeof(XmlElement);
    const std::tuple<const char *, std::size_t> rows[] = {
        {"", 0},
        {"<a>1</a><b/><c>3</c>", 0},
        {"<a><b>1</b><c/></a>", 0},
        {"<a><b/></a><cc>333</cc>", kRecord + 2 + 3},
        {"<z/><a><b/></a><cc>333</cc>", kRecord + 2 + 3},
    };
    for (const auto &[text, kept] : rows) {
        ReleaseModuleHeap();
        parse(text);
        EXPECT_EQ(XmlElement_Clean(&root), 1);
        EXPECT_TRUE(heap_keeps(kept)) << text;
        EXPECT_EQ(root.child, nullptr);
        EXPECT_EQ(root.value, nullptr);
    }
    EXPECT_EQ(XmlElement_Clean(nullptr), 0);
}

TEST_F(Xml, TakesAnyDepth) {
    XmlElement_SetupRoot(&root, "Root", 4);
    XmlElement *deepest = &root;
    for (int level = 0; level < 100000; ++level) {
        deepest = XmlElement_CreateChild(deepest, "n", 1, nullptr, 0);
        ASSERT_TRUE(deepest || level > 1000) << level;
        if (!deepest) break; // the board's heap holds no more
    }
    EXPECT_EQ(find("n", "x"), nullptr);
    XmlElement_Clean(&root);
    EXPECT_TRUE(heap_keeps(0));

    // Every level holds all below it once more: first so deep that the heap just holds it, then far deeper.
    for (const int depth : {600, 100000}) {
        std::string text, end;
        for (int level = 0; level < depth; ++level) text += "<" + Name(level) + ">";
        for (int level = depth; level-- > 0;) text += "</" + Name(level) + ">";
        EXPECT_EQ(parse(text), 1);
        EXPECT_EQ(find(Name(598), Name(599)) != nullptr, depth == 600);
        EXPECT_NE(find("n0", "n1"), nullptr);
        XmlElement_Clean(&root);
        EXPECT_TRUE(heap_keeps(0));
    }
}

TEST_F(Xml, GoesOnWithoutMemory) {
    const std::string text = "<a>" + std::string(kHeapSize / 2, 'x') + "</a><b>1</b>";
    EXPECT_EQ(parse(text), 1); // the file fits, the copy of its content does not
    EXPECT_EQ(show(root), "a=(null) b=1");
    EXPECT_EQ(root.child->value_length, 0);
    ReleaseModuleHeap();
    EXPECT_EQ(parse(std::string(kHeapSize - 4, ' ') + "<b/>"), 0) << "no room for an element";
}

} // namespace

} // namespace fixture
