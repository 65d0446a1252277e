// SPDX-License-Identifier: MIT
//
// What an oracle over any document does not show (fuzz/xml_fuzz.cpp, fuzz/xml_write_fuzz.cpp): how
// deep one may be, what a refused one leaves behind, and values without a text.
#include "appcore/appcore.h"

#include <functional>
#include <memory>

#include "support/expect.h"
#include "support/fault.h"
#include "support/log_capture.h"
#include "xml/mxml_version.h"

using fault::Fn;
using test::LogCapture;

using Document = std::unique_ptr<mxml_node_t, void (*)(mxml_node_t *)>;

// ---- Loading from outside -------------------------------------------------------------------

static uint32_t Load(const std::string &text, mxml_node_t **pptTree)
{
    return AppXmlLoad(text.data(), static_cast<uint32_t>(text.size()), pptTree);
}

TEST(XmlLoad, DepthTakesNoStack)
{
    std::string deep = "<!DOCTYPE a>";
    for (int i = 0; i < 100000; ++i)
        deep += "<a>";
    for (int i = 0; i < 100000; ++i)
        deep += "</a>";
    mxml_node_t *ptTree = nullptr;
    ASSERT_CODE(APP_OK, Load(deep, &ptTree));
    mxmlDelete(ptTree);
}

TEST(XmlLoad, WhatIsNotOneWholeDocumentLeavesNothing)
{
    using namespace std::string_literals;
    std::string broken = "text|<a/>text <b/>|<a></b>|<a/><b/>|<a/><!-- c -->|<!-- c --><a/>|<a "
                         "b='1'/b>|<a b='' b=''>|<a>&no;</a>|<a/>\0"
                         "|<a>\xFE\xFF\0<\0/|<a b='\xFF\xFE<|</document><a "
                         "b='|</document\1><a|</document&#1;><a b='|</><a b=''|<a>1</a>\1<b/>|"
                         "<a/>\xC3|<a/>\x80|<?end?>\1|<a/><end></end |<a/><end/|<!DOCTYPE a><a>|"
                         "<?xml|<!DOCTYPE|<cfg a='1' b=\"2|<cfg><v c='3'>x &am|<a><![CDATA[d]]|"s;
    mxmlSetErrorCallback([](const char *) {});
    LogCapture log;
    for (size_t nEnd; !broken.empty(); broken.erase(0, nEnd + 1)) {
        nEnd = broken.find('|');
        SCOPED_TRACE(broken.substr(0, nEnd));
        const long nBlocks = fault::LiveBlocks();
        mxml_node_t *ptTree = reinterpret_cast<mxml_node_t *>(1);
        errno = ENOMEM; // an old error must not count
        EXPECT_CODE(APP_BAD_VALUE, Load(broken.substr(0, nEnd), &ptTree));
        EXPECT_EQ(ptTree, nullptr);
        EXPECT_EQ(fault::LiveBlocks(), nBlocks);
    }
    log.ExpectNone(); // nobody outside can fill the log
}

// ---- Readers and writers --------------------------------------------------------------------

TEST(XmlReaders, WhatStandsBesideAValue)
{
    const struct {
        const char *szContent, *szText, *szData;
    } rows[] = {{"80<!-- c -->", "80", "]]"},
                {"<!-- c -->80", "", "]]"},
                {"<?i?>80", "", "]]"},
                {"<![CDATA[d]]>80", "", "d"},
                {"80<![CDATA[]]><![CDATA[d]]>", "80", ""}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.szContent);
        mxml_node_t *ptTree = nullptr;
        ASSERT_CODE(APP_OK, Load(test::Text("<c><v>%s</v></c>", row.szContent), &ptTree));
        const char *szText = nullptr, *szData = nullptr;
        EXPECT_CODE(APP_OK, AppXmlGetSonNodeValue_Str(ptTree, "v", &szText));
        EXPECT_STREQ(szText, row.szText);
        EXPECT_CODE(APP_OK, AppXmlGetSonNodeValue_CData(ptTree, "v", &szData));
        EXPECT_STREQ(szData, row.szData);
        mxmlDelete(ptTree);
    }
}

TEST(XmlReaders, ValueNodesWithoutText)
{
    const Document document(
        app::LoadString(nullptr, "<cfg><v>5</v><c><![CDATA[5]]></c></cfg>", AppXmlMxmlParseCB),
        mxmlDelete);
    LogCapture log;
    fault::Fail fail({Fn::mxmlGetOpaque, Fn::mxmlGetCDATA}, 1, ENOMEM, 2);
    const char *szText = nullptr;
    EXPECT_CODE(APP_XML_NODE_INVALID, AppXmlGetSonNodeValue_Str(document.get(), "v", &szText));
    EXPECT_CODE(APP_XML_NODE_INVALID, AppXmlGetSonNodeValue_CData(document.get(), "c", &szText));
    EXPECT_EQ(szText, nullptr);
    EXPECT_EQ(log.Lines().size(), 2u);
}

TEST(XmlWriters, ValuesWithoutText)
{
    const Document document(mxmlNewElement(nullptr, "cfg"), mxmlDelete);
    mxml_node_t *pt = document.get(), *ptNew = nullptr;
    const std::function<uint32_t()> typed[] = {
        [&] { return AppXmlAddSonNode_s32(pt, "v", -7, &ptNew); },
        [&] { return AppXmlAddSonNode_u32(pt, "v", UINT32_MAX, &ptNew); },
        [&] { return AppXmlAddSonNode_u64(pt, "v", UINT64_MAX, &ptNew); },
        [&] { return AppXmlAddSonNode_Double(pt, "v", 0.1, &ptNew); },
        [&] { return AppXmlSetAttr_s32(pt, "a", -7); },
        [&] { return AppXmlSetAttr_u32(pt, "b", UINT32_MAX); }};
    LogCapture log;
    for (const auto &write : typed) {
        fault::Fail fail(Fn::_AppVsnprintf); // the value's text, not that of the line
        EXPECT_CODE(APP_FAILED, write());
    }
    EXPECT_EQ(log.Lines().size(), std::size(typed));
    EXPECT_TRUE(!mxmlGetFirstChild(pt) && mxmlElementGetAttrCount(pt) == 0);
}
