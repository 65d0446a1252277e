// SPDX-License-Identifier: MIT
#include "appcore/appcore.h"

#include <math.h>
#include <string.h>

#include <functional>
#include <memory>
#include <sstream>

#include "support/expect.h"
#include "support/fault.h"
#include "support/log_capture.h"

using fault::Fn;
using test::LogCapture;
using test::Text;

// ---- Documents and log lines ----------------------------------------------------------------

using Document = std::unique_ptr<mxml_node_t, void (*)(mxml_node_t *)>;

static Document Load(const std::string &text, mxml_load_cb_t pfnType = AppXmlMxmlParseCB)
{
    Document document(mxmlLoadString(nullptr, text.c_str(), pfnType), mxmlDelete);
    EXPECT_NE(document, nullptr) << text;
    return document;
}

static Document Create(const char *szRoot)
{
    return Document(mxmlNewElement(nullptr, szRoot), mxmlDelete);
}

static std::string Save(const Document &document)
{
    char *szText = mxmlSaveAllocString(document.get(), MXML_NO_CALLBACK);
    const std::string text = szText ? szText : "";
    free(szText);
    return text;
}

// Runs an operation under every threshold that matters; `lines` are those under the lowest.
static void ExpectLogged(const std::string &lines, const std::function<void()> &operation)
{
    for (const int nThreshold : {APP_LOG_DEBUG + 0, APP_LOG_DEBUG - 1, APP_LOG_ERROR + 0}) {
        SCOPED_TRACE(Text("threshold %d", nThreshold));
        LogCapture log(static_cast<uint8_t>(nThreshold));
        operation();
        std::string expected, logged, line;
        for (std::istringstream stream(lines); std::getline(stream, line);)
            if (nThreshold == APP_LOG_DEBUG || line.compare(0, 8, "[DEBUG] ") != 0)
                expected += line + "\n";
        for (const std::string &each : log.Lines())
            logged += each;
        EXPECT_EQ(logged, expected);
    }
}

// ---- Loading from outside -------------------------------------------------------------------

// From a block of exactly the text's length, so that a sanitizer sees a step beyond it.
static uint32_t LoadExactly(const std::string &text, mxml_node_t **pptTree)
{
    const std::unique_ptr<char[]> exact(new char[text.size()]);
    text.copy(exact.get(), text.size());
    return AppXmlLoad(exact.get(), static_cast<uint32_t>(text.size()), pptTree);
}

TEST(XmlLoad, GivesTheTreeOfMiniXml)
{
    std::string deep; // deleted without recursion
    for (int i = 0; i < 100000; ++i)
        deep += "<a>";
    for (int i = 0; i < 100000; ++i)
        deep += "</a>";
    LogCapture log(APP_LOG_DEBUG);
    for (const std::string &text :
         {std::string("<cfg> <v>1 &lt; 2</v>\n<w a='1' b=\"&quot;\"/><![CDATA[<]]></cfg>\n"),
          std::string("<?xml version='1.0'?>\n<!DOCTYPE x>\n<!-- c --><cfg><v>1</v></cfg>\n<!-- d "
                      "-->\n<b/>"),
          std::string("<!DOCTYPE cfg> text <cfg/>"),
          std::string("\xEF\xBB\xBF<a>\xC3\xA4\xEF\xBB\xBF</a> dropped"),
          std::string("<!-- alone -->"), std::string("<?x?><a/><?end?>"), deep}) {
        mxml_node_t *ptTree = nullptr;
        ASSERT_CODE(APP_OK, LoadExactly(text, &ptTree));
        const Document document(ptTree, mxmlDelete);
        EXPECT_EQ(mxmlGetParent(ptTree), nullptr);
        EXPECT_EQ(Save(document), Save(Load(text)));
    }
    log.ExpectNone();
}

TEST(XmlLoad, WhatIsNotOneWholeDocumentLeavesNothing)
{
    using namespace std::string_literals;
    std::istringstream broken("text| <a/>|<a></b>|<a/><b/>|<a/><!-- c -->|<!-- c --><a/>|<a "
                              "b='1'/b>|<a b='' b=''>|<a>&no;</a>|<a/>\0"
                              "|<a>\xFE\xFF\0<\0/|<a b='\xFF\xFE<|</document><a "
                              "b='|</document\1><a|</document&#1;><a b='|</><a b=''"
                              "|<a>1</a>\1<b/>|<a/>\xC1\xBF|<a/>\xC3|<a/>\xE0\x9F\xBF|<a/"
                              ">\xF0\x8F\xBF\xBF|<a/>\x80|<?end?>\1"
                              "|<a/><end></end |<a/><end/|<!DOCTYPE a><a>|<?xml|<!DOCTYPE"s);
    std::vector<std::string> texts;
    for (std::string text; std::getline(broken, text, '|');)
        texts.push_back(text);
    const std::string whole =
        "<cfg a='1' b=\"2\"><v c='3'>x &amp; y</v><!-- c --><![CDATA[d]]><?p?><e/></cfg>";
    for (size_t n = 0; n < whole.size(); ++n)
        texts.push_back(whole.substr(0, n)); // breaks off
    mxmlSetErrorCallback([](const char *) {});
    for (const std::string &text : texts) {
        SCOPED_TRACE(text);
        const long nBlocks = fault::LiveBlocks();
        const size_t nForeign = text.find_first_of("\0\1\x80\xC1\xC3\xE0\xF0\xFE\xFF"s);
        ExpectLogged(
            nForeign == text.npos
                ? Text("[DEBUG] AppXmlLoad: not one whole document, %zu bytes\n", text.size())
                : Text("[DEBUG] AppXmlLoad: no character of XML at %zu of %zu\n", nForeign,
                       text.size()),
            [&] {
                mxml_node_t *ptTree = reinterpret_cast<mxml_node_t *>(1);
                EXPECT_CODE(APP_BAD_VALUE, LoadExactly(text, &ptTree));
                EXPECT_EQ(ptTree, nullptr);
            });
        EXPECT_EQ(fault::LiveBlocks(), nBlocks);
    }
}

TEST(XmlLoad, IsWholeOrRefusedWithoutMemory)
{
    const std::string text = "<cfg><v> 1 </v><!-- c --><v><w>2</w></v><![CDATA[d]]><?p?><e/></cfg>";
    const std::string line =
        Text("[ERROR] AppXmlLoad: no memory for a text of %zu bytes\n", text.size());
    mxmlSetErrorCallback([](const char *) {});
    for (const unsigned nTimes : {1u, 1u << 30}) // once, or from there on
        for (unsigned n = 1, nHits = 1; nHits; ++n) {
            SCOPED_TRACE(n);
            LogCapture log;
            const long nBlocks = fault::LiveBlocks();
            mxml_node_t *ptTree = nullptr;
            fault::Fail fail(fault::kMemory, n, ENOMEM, nTimes);
            const uint32_t dwCode = LoadExactly(text, &ptTree);
            nHits = fail.Hits();
            EXPECT_CODE(nHits ? APP_NO_RESOURCE : APP_OK, dwCode);
            EXPECT_EQ(ptTree == nullptr, nHits != 0);
            EXPECT_EQ(log.Count(line), nHits ? 1u : 0u);
            mxmlDelete(ptTree);
            EXPECT_EQ(fault::LiveBlocks(), nBlocks);
        }
}

// ---- Readers --------------------------------------------------------------------------------

// Every reader in one shape: node, name, and the value as text.
using Read = std::function<uint32_t(mxml_node_t *, const char *, std::string *)>;
static const char *const kKept = "77"; // what an untouched value shows

template <typename T>
static Read As(uint32_t (*pfnRead)(mxml_node_t *, const char *, T *))
{
    return [=](mxml_node_t *ptNode, const char *szName, std::string *pText) {
        T value;
        if constexpr (std::is_pointer_v<T>)
            value = kKept;
        else
            value = 77;
        const uint32_t dwCode = pfnRead(ptNode, szName, &value);
        std::ostringstream text;
        text << +value;
        EXPECT_TRUE(text) << "null";
        *pText = text.str();
        return dwCode;
    };
}

// The readers of other shapes, adapted.
template <typename T, uint32_t (*pfnRead)(mxml_node_t *, T *)>
static uint32_t OfNode(mxml_node_t *ptNode, const char *, T *ptValue)
{
    return pfnRead(ptNode, ptValue);
}

static uint32_t Copy(mxml_node_t *ptNode, const char *szName, const char **pszText)
{
    static char s_achBuf[8];
    strcpy(s_achBuf, kKept);
    *pszText = s_achBuf;
    return AppXmlGetSonNodeValue_Str_Copy(ptNode, szName, s_achBuf, 8);
}

static uint32_t Find(mxml_node_t *ptNode, const char *szName, const char **pszText)
{
    mxml_node_t *ptFound = nullptr;
    const uint32_t dwCode = AppXmlGetSonNode(ptNode, szName, &ptFound);
    if (ptFound)
        *pszText = mxmlGetElement(ptFound);
    return dwCode;
}

struct ReadRow {
    Read read;
    const char *szText; // null: there is no such element or attribute
    const char *szValue;
    const char *szLog = "";
};

// Reads "v" of the document `before` text `after`: a line means a failure.
static void ExpectReads(const std::string &before, const std::string &after,
                        const std::vector<ReadRow> &rows)
{
    for (const ReadRow &row : rows) {
        SCOPED_TRACE(Text("row %d", int(&row - rows.data())));
        const Document document = Load(row.szText ? before + row.szText + after : "<cfg/>");
        ExpectLogged(row.szLog, [&] {
            std::string value;
            EXPECT_CODE(!*row.szLog  ? APP_OK
                        : row.szText ? APP_BAD_VALUE
                                     : APP_NOT_FOUND,
                        row.read(document.get(), "v", &value));
            EXPECT_EQ(value, row.szValue);
        });
    }
}

TEST(XmlReaders, ValuesBelowANode)
{
    const Read text = As(AppXmlGetSonNodeValue_Str), flag = As(AppXmlGetSonNodeValue_Bool);
    const Read s32 = As(AppXmlGetSonNodeValue_s32), u8 = As(AppXmlGetSonNodeValue_u8);
    const Read u16 = As(AppXmlGetSonNodeValue_u16), u32 = As(AppXmlGetSonNodeValue_u32);
    const Read u64 = As(AppXmlGetSonNodeValue_u64), section = As(AppXmlGetSonNodeValue_CData);
#define MISSING "[DEBUG] AppXmlGetSonNodeValue_Str: mxmlFindPath() failed, {v}\n"
    const std::vector<ReadRow> rows = {
        {text, " a &lt; b ", " a < b "},
        {text, "", ""},
        {text, nullptr, kKept, MISSING},
        {As(Copy), "camera", "camera"},
        {As(Copy), nullptr, kKept,
         MISSING "[ERROR] AppXmlGetSonNodeValue_Str_Copy: AppXmlGetSonNodeValue_Str() failed 108, "
                 "szSonNodeName{v}\n"},
        {As(Find), "", "v"},
        {As(Find), nullptr, kKept, "[DEBUG] AppXmlGetSonNode: mxmlFindElement() failed, name{v}\n"},
        {section, "<![CDATA[a < b]]>", "a < b"},
        {section, "x<!--c--><e/><![CDATA[one]]>y<![CDATA[two]]>", "one"},
        {section, "<![CDATA[]]>", ""},
        {section, "<![CDAT]>", "]]"},
        {section, "<e><![CDATA[deep]]></e>", "]]"},
        {section, "", "]]"},
        {section, nullptr, kKept,
         "[DEBUG] AppXmlGetSonNodeValue_CData: do not find element. {v}\n"},
        {s32, "-12 volts", "-12"},
        {s32, "-2147483648", "-2147483648"},
        {s32, "2147483648", kKept,
         "[ERROR] AppXmlGetSonNodeValue_s32: AppConvertStrtoS32() failed, {2147483648}\n"},
        {u8, "256", kKept, "[ERROR] AppXmlGetSonNodeValue_u8: invalid value: 256\n"},
        {u16, "65535", "65535"},
        {u16, "65536", kKept, "[ERROR] AppXmlGetSonNodeValue_u16: invalid value: 65536\n"},
        {u32, "4294967295", "4294967295"},
        {u32, "-1", kKept,
         "[ERROR] AppXmlGetSonNodeValue_u32: AppConvertStrtoU32() overflow, {-1}\n"},
        {u64, "18446744073709551615", "18446744073709551615"},
        {u64, "18446744073709551616", kKept,
         "[ERROR] AppXmlGetSonNodeValue_u64: AppConvertStrtoU64() overflow, "
         "{18446744073709551616}\n"},
        {flag, "TRUE", "1"},
        {flag, "falsE", "0"},
        {flag, "1", kKept, "[ERROR] AppXmlGetSonNodeValue_Bool: unknown text{1}, node{v}\n"},
        {flag, nullptr, kKept,
         MISSING "[DEBUG] AppXmlGetSonNodeValue_Bool: AppXmlGetSonNodeValue_Str() failed 108\n"},
    };
#undef MISSING
    ExpectReads("<cfg><v>", "</v></cfg>", rows);
}

TEST(XmlReaders, Attributes)
{
    const Read text = As(AppXmlGetAttr_Str), flag = As(AppXmlGetAttr_Bool);
    const Read s32 = As(AppXmlGetAttr_s32), u32 = As(AppXmlGetAttr_u32);
    const Read u8 = As(AppXmlGetAttr_u8), u16 = As(AppXmlGetAttr_u16);
    const char *szNoS32 = "[DEBUG] AppXmlGetAttr_s32: get attr failed, name {v}\n";
    const char *szWideS32 = "[ERROR] AppXmlGetAttr_s32: conv str to s32 failed, {99999999999}\n";
    const std::vector<ReadRow> rows = {
        {text, " a&amp;b", " a&b"},
        {text, nullptr, kKept, "[ERROR] AppXmlGetAttr_Str: can NOT find attr{v}\n"},
        {s32, "abc", "0"},
        {s32, nullptr, kKept, szNoS32},
        {s32, "99999999999", "0", szWideS32},
        {u8, "255", "255"},
        {u8, "-1", kKept, "[ERROR] AppXmlGetAttr_u8: value -1, is not in [0, 0xFF]\n"},
        {u8, "256", kKept, "[ERROR] AppXmlGetAttr_u8: value 256, is not in [0, 0xFF]\n"},
        {u16, "65535", "65535"},
        {u16, "65536", kKept, "[ERROR] AppXmlGetAttr_u16: value 65536, is not in [0, 0xFFFF]\n"},
        {u32, "4294967295", "4294967295"},
        {u32, "12V", "12"},
        {u32, nullptr, kKept, "[DEBUG] AppXmlGetAttr_u32: get attr failed, name {v}\n"},
        {u32, "-1", "0", "[ERROR] AppXmlGetAttr_u32: conv str to u32 failed, {-1}\n"},
        {flag, "True", "1"},
        {flag, "0", kKept, "[ERROR] AppXmlGetAttr_Bool: unknown value {0}, attr {v}\n"},
        {flag, nullptr, kKept, "[DEBUG] AppXmlGetAttr_Bool: get attr failed, name {v}\n"},
    };
    ExpectReads("<cfg v='", "'/>", rows);
}

TEST(XmlReaders, ValuesOfTheNodeItself)
{
    const Read text = As(OfNode<const char *, AppXmlGetNodeValue_Str>);
    const Read u16 = As(OfNode<uint16_t, AppXmlGetNodeValue_u16>);
    const Read u32 = As(OfNode<uint32_t, AppXmlGetNodeValue_u32>);
    const std::vector<ReadRow> rows = {
        {text, " 10.0.0.1", " 10.0.0.1"},
        {text, "<e>1</e>", ""},
        {text, nullptr, ""},
        {u16, nullptr, "0"},
        {u16, "65535", "65535"},
        {u16, "65536", kKept,
         "[ERROR] AppXmlGetNodeValue_u16: node value too large for u16, dwNum 65536\n"},
        {u16, "-1", kKept, "[ERROR] AppXmlGetNodeValue_u16: overflow, {-1}\n"},
        {u32, "4294967295", "4294967295"},
        {u32, "4294967296", kKept, "[ERROR] AppXmlGetNodeValue_u32: overflow, {4294967296}\n"},
    };
    ExpectReads("<v>", "</v>", rows);
}

TEST(XmlReaders, ThreeWaysToFindANode)
{
    const Document document = Load("<cfg>\n <net><ip>10.0.0.1</ip></net><port>1</port><other/>"
                                   "<port>2</port>text<Port>3</Port></cfg>");
    mxml_node_t *ptCfg = document.get(), *ptIp = nullptr;
    LogCapture log(APP_LOG_DEBUG);
    for (const char *szPath : {"net/ip", "*/net/ip", "*/ip"}) {
        const char *szText = nullptr;
        EXPECT_CODE(APP_OK, AppXmlGetSonNodeValue_Str(ptCfg, szPath, &szText));
        EXPECT_STREQ(szText, "10.0.0.1");
    }
    EXPECT_CODE(APP_OK, AppXmlGetSonNode(ptCfg, "ip", &ptIp));
    EXPECT_STREQ(mxmlGetOpaque(ptIp), "10.0.0.1");
    EXPECT_EQ(AppXmlGetFirstChildWithName(ptCfg, "ip"), nullptr) << "not a direct child";
    EXPECT_EQ(AppXmlGetFirstChildWithName(ptCfg, ""), nullptr) << "a value has no name";
    EXPECT_EQ(AppXmlGetFirstChildWithName(mxmlGetParent(ptIp), "ip"), ptIp) << "the very first";
    EXPECT_EQ(AppXmlGetFirstChildWithName(AppXmlGetFirstChildWithName(ptCfg, "other"), "ip"),
              nullptr);
    std::string ports;
    for (mxml_node_t *pt = AppXmlGetFirstChildWithName(ptCfg, "port"); pt;
         pt = AppXmlGetNextSiblingWithName(pt, "port"))
        ports += mxmlGetOpaque(pt);
    EXPECT_EQ(ports, "12");
    log.ExpectNone();
    EXPECT_CODE(APP_NOT_FOUND, AppXmlGetSonNode(ptCfg, "cfg", &ptIp)) << "the top itself";
    std::string text;
    EXPECT_CODE(APP_NOT_FOUND, As(AppXmlGetSonNodeValue_Str)(ptCfg, "ip", &text)) << "no search";
}

TEST(XmlReaders, KindsOfValueNodes)
{
    struct {
        std::function<void(mxml_node_t *)> fill;
        const char *szText; // null: unusable
    } const rows[] = {
        {[](mxml_node_t *pt) { mxmlNewInteger(pt, 5); }, nullptr},
        {[](mxml_node_t *pt) { mxmlNewCustom(pt, pt, nullptr); }, nullptr},
        {[](mxml_node_t *pt) { mxmlNewText(pt, 1, "5"), mxmlNewText(pt, 1, "6"); }, "5"},
        {[](mxml_node_t *pt) { mxmlNewElement(pt, "e"), mxmlNewOpaque(pt, "5"); }, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(Text("row %d", int(&row - rows)));
        const Document document = Create("cfg");
        row.fill(mxmlNewElement(document.get(), "v"));
        LogCapture log;
        std::string text;
        EXPECT_CODE(row.szText ? APP_OK : APP_XML_NODE_INVALID,
                    As(AppXmlGetSonNodeValue_Str)(document.get(), "v", &text));
        EXPECT_EQ(text, row.szText ? row.szText : kKept);
        EXPECT_EQ(log.Lines().empty(), row.szText != nullptr);
    }
    // Loaded without the callback: words.  Behind a comment: no value any more.
    std::string text;
    const Document words = Load("<cfg><v> two words</v></cfg>", MXML_TEXT_CALLBACK);
    EXPECT_CODE(APP_OK, As(AppXmlGetSonNodeValue_Str)(words.get(), "v", &text));
    EXPECT_EQ(text, "two");
    const Document comment = Load("<cfg><v><!-- HTTP -->80</v></cfg>");
    EXPECT_CODE(APP_OK, As(AppXmlGetSonNodeValue_u32)(comment.get(), "v", &text));
    EXPECT_EQ(text, "0");
}

TEST(XmlReaders, ValueNodesWithoutText)
{
    const Document document = Load("<cfg><v>5</v><c><![CDATA[5]]></c></cfg>");
    LogCapture log;
    fault::Fail fail({Fn::mxmlGetOpaque, Fn::mxmlGetCDATA}, 1, ENOMEM, 2);
    const char *szText = kKept;
    EXPECT_CODE(APP_XML_NODE_INVALID, AppXmlGetSonNodeValue_Str(document.get(), "v", &szText));
    EXPECT_CODE(APP_XML_NODE_INVALID, AppXmlGetSonNodeValue_CData(document.get(), "c", &szText));
    EXPECT_STREQ(szText, kKept);
    log.ExpectLines(
        {"[ERROR] AppXmlGetSonNodeValue_Str: node{v} value is NULL\n",
         "[ERROR] AppXmlGetSonNodeValue_CData: mxmlGetCDATA() failed, szNodeName{c}\n"});
}

TEST(XmlReaders, CopiesOnlyWhatFits)
{
    const Document document = Load("<cfg><v>12345</v></cfg>");
    const std::string untouched = "########";
    const struct {
        uint32_t dwSize, dwCode;
        std::string left;
    } rows[] = {{0, APP_INVALID_ARG, untouched},
                {5, APP_BUFFER_TOO_SMALL, untouched},
                {6, APP_OK, {"12345\0##", 8}},
                {8, APP_OK, {"12345\0\0\0", 8}}};
    for (const auto &row : rows) {
        LogCapture log;
        char achBuf[9] = "########";
        EXPECT_CODE(row.dwCode,
                    AppXmlGetSonNodeValue_Str_Copy(document.get(), "v", achBuf, row.dwSize));
        EXPECT_EQ(std::string(achBuf, 8), row.left);
        EXPECT_EQ(log.Lines().empty(), row.dwCode == APP_OK);
    }
}

TEST(XmlReaders, ABooleanIsCheckedWithoutOutParameterToo)
{
    LogCapture log;
    EXPECT_CODE(APP_BAD_VALUE,
                AppXmlGetSonNodeValue_Bool(Load("<c><v>1</v></c>").get(), "v", nullptr));
    EXPECT_CODE(APP_OK, AppXmlGetSonNodeValue_Bool(Load("<c><v>true</v></c>").get(), "v", nullptr));
}

// ---- Writers --------------------------------------------------------------------------------

TEST(XmlWriters, TextsAtTheirBounds)
{
    LogCapture log(APP_LOG_DEBUG);
    const Document document = Create("cfg");
    mxml_node_t *pt = document.get(), *ptNew = nullptr;
    const double dMost = nextafter(1e56, 0), dLeast = nextafter(-1e55, 0);
    EXPECT_CODE(APP_OK, AppXmlAddSonNode_Str(pt, "v", "a  <b>& ", nullptr));
    EXPECT_CODE(APP_OK, AppXmlAddSonNode_CDATA(pt, "v", "a <b>&", &ptNew));
    EXPECT_CODE(APP_OK, AppXmlAddSonNode_u32(pt, "v", UINT32_MAX, nullptr));
    EXPECT_CODE(APP_OK, AppXmlAddSonNode_u64(pt, "v", UINT64_MAX, nullptr));
    EXPECT_CODE(APP_OK, AppXmlAddSonNode_Bool(pt, "v", 0, nullptr));
    EXPECT_CODE(APP_OK, AppXmlAddSonNode_Double(pt, "v", dMost, nullptr));
    EXPECT_CODE(APP_OK, AppXmlAddSonNode_Double(pt, "v", dLeast, nullptr));
    EXPECT_CODE(APP_OK, AppXmlSetAttr_u32(pt, "b", 1));
    EXPECT_CODE(APP_OK, AppXmlSetAttr_u32(pt, "b", UINT32_MAX)); // replaced, not doubled
    const std::string text = Save(document);
    EXPECT_EQ(text, Text("<cfg b=\"4294967295\"><v>a  &lt;b&gt;&amp; </v><v><![CDATA[a "
                         "<b>&]]></v><v>4294967295</v>"
                         "<v>18446744073709551615</v><v>false</v><v>%lf</v><v>%lf</v></cfg>\n",
                         dMost, dLeast));
    log.ExpectNone();
    for (const double dTooLong : {1e56, -1e55}) {
        ptNew = pt;
        EXPECT_CODE(APP_FAILED, AppXmlAddSonNode_Double(pt, "v", dTooLong, &ptNew));
        EXPECT_EQ(ptNew, nullptr);
        log.ExpectLines(
            {Text("[ERROR] AppXmlAddSonNode_Double: AppSnprintf() failed, %lf\n", dTooLong)});
    }
    const std::pair<std::function<uint32_t()>, const char *> rows[] = {
        {[&] { return AppXmlAddSonNode_s32(pt, "v", -7, &ptNew); },
         "AddSonNode_s32: AppSnprintf() failed, value -7"},
        {[&] { return AppXmlAddSonNode_u32(pt, "v", 7, &ptNew); },
         "AddSonNode_u32: AppSnprintf() failed, 7"},
        {[&] { return AppXmlAddSonNode_u64(pt, "v", 7, &ptNew); },
         "AddSonNode_u64: AppSnprintf() failed, 7"},
        {[&] { return AppXmlSetAttr_s32(pt, "b", -7); },
         "SetAttr_s32: AppSnprintf() failed, value -7"},
        {[&] { return AppXmlSetAttr_u32(pt, "b", 7); },
         "SetAttr_u32: AppSnprintf() failed, value 7"}};
    for (const auto &[write, szLine] : rows) {
        fault::Fail fail(Fn::_AppVsnprintf); // the first text, not that of the line
        EXPECT_CODE(APP_FAILED, write());
        log.ExpectLines({Text("[ERROR] AppXml%s\n", szLine)});
    }
    EXPECT_EQ(Save(document), text);
}
