// SPDX-License-Identifier: MIT
//
// What an oracle over any document does not show (fuzz/xml_fuzz.cpp, fuzz/xml_write_fuzz.cpp): which
// texts are documents, what is left when memory ends, and what the writers put into the tree.
#include "appcore/appcore.h"

#include <functional>
#include <memory>

#include "support/expect.h"
#include "support/fault.h"
#include "support/log_capture.h"

using fault::Fn;
using test::LogCapture;
using test::Text;

using Document = std::unique_ptr<mxml_node_t, void (*)(mxml_node_t *)>;

static std::string Save(mxml_node_t *ptTree)
{
    char *szText = mxmlSaveAllocString(ptTree, MXML_NO_CALLBACK);
    const std::string text = szText ? szText : "";
    free(szText);
    return text;
}

// ---- Loading from outside -------------------------------------------------------------------

static uint32_t Load(const std::string &text, mxml_node_t **pptTree)
{
    return AppXmlLoad(text.data(), static_cast<uint32_t>(text.size()), pptTree);
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
          std::string("<?xml version='1.0'?>\n<!DOCTYPE x>\n<!-- c --><cfg/>\n<!-- d -->\n<b/>"),
          std::string("<!DOCTYPE cfg> text <cfg/>"),
          std::string("\xEF\xBB\xBF<a>\xC3\xA4\xEF\xBB\xBF</a> dropped"),
          std::string("<!-- alone -->"), std::string("<?x?><a/><?end?>"), deep}) {
        mxml_node_t *ptTree = nullptr;
        ASSERT_CODE(APP_OK, Load(text, &ptTree));
        const Document document(ptTree, mxmlDelete),
            wanted(mxmlLoadString(nullptr, text.c_str(), AppXmlMxmlParseCB), mxmlDelete);
        EXPECT_EQ(Save(ptTree), Save(wanted.get()));
    }
    log.ExpectNone();
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

TEST(XmlLoad, IsWholeOrRefusedWithoutMemory)
{
    const std::string text = "<cfg><v> 1 </v><!-- c --><v><w>2</w></v><![CDATA[d]]><?p?><e/></cfg>";
    mxmlSetErrorCallback([](const char *) {});
    for (const unsigned nTimes : {1u, 1u << 30}) // once, or from there on
        for (unsigned n = 1, nHits = 1; nHits; ++n) {
            SCOPED_TRACE(n);
            LogCapture log;
            const long nBlocks = fault::LiveBlocks();
            mxml_node_t *ptTree = nullptr;
            fault::Fail fail(fault::kMemory, n, ENOMEM, nTimes);
            const uint32_t dwCode = Load(text, &ptTree);
            nHits = fail.Hits();
            EXPECT_CODE(nHits ? APP_NO_RESOURCE : APP_OK, dwCode);
            EXPECT_EQ(ptTree == nullptr, nHits != 0);
            EXPECT_EQ(log.Lines().empty(), nHits == 0);
            mxmlDelete(ptTree);
            EXPECT_EQ(fault::LiveBlocks(), nBlocks);
            EXPECT_TRUE(nHits || n > 20) << "Mini-XML's own were not met";
        }
}

// ---- Readers and writers --------------------------------------------------------------------

TEST(XmlReaders, ValueNodesWithoutText)
{
    const Document document(
        mxmlLoadString(nullptr, "<cfg><v>5</v><c><![CDATA[5]]></c></cfg>", AppXmlMxmlParseCB),
        mxmlDelete);
    LogCapture log;
    fault::Fail fail({Fn::mxmlGetOpaque, Fn::mxmlGetCDATA}, 1, ENOMEM, 2);
    const char *szText = nullptr;
    EXPECT_CODE(APP_XML_NODE_INVALID, AppXmlGetSonNodeValue_Str(document.get(), "v", &szText));
    EXPECT_CODE(APP_XML_NODE_INVALID, AppXmlGetSonNodeValue_CData(document.get(), "c", &szText));
    EXPECT_EQ(szText, nullptr);
    EXPECT_EQ(log.Lines().size(), 2u);
}

TEST(XmlWriters, TypedValues)
{
    LogCapture log(APP_LOG_DEBUG);
    const Document document(mxmlNewElement(nullptr, "cfg"), mxmlDelete);
    mxml_node_t *pt = document.get(), *ptNew = nullptr;
    const std::function<uint32_t()> typed[] = {
        [&] { return AppXmlAddSonNode_s32(pt, "v", -7, &ptNew); },
        [&] { return AppXmlAddSonNode_u32(pt, "v", UINT32_MAX, &ptNew); },
        [&] { return AppXmlAddSonNode_u64(pt, "v", UINT64_MAX, &ptNew); },
        [&] { return AppXmlAddSonNode_Double(pt, "v", 0.1, &ptNew); },
        [&] { return AppXmlSetAttr_s32(pt, "a", -7); },
        [&] { return AppXmlSetAttr_u32(pt, "b", UINT32_MAX); }};
    EXPECT_CODE(APP_OK, AppXmlAddSonNode_Str(pt, "v", "a  <b>& ", nullptr));
    EXPECT_CODE(APP_OK, AppXmlAddSonNode_CDATA(pt, "v", "a <b>&", &ptNew));
    EXPECT_CODE(APP_OK, AppXmlAddSonNode_Bool(pt, "v", 2, nullptr));
    for (const auto &write : typed)
        EXPECT_CODE(APP_OK, write());
    const std::string text = Save(pt);
    EXPECT_EQ(text, "<cfg a=\"-7\" b=\"4294967295\"><v>a  &lt;b&gt;&amp; </v><v><![CDATA[a <b>&]]>"
                    "</v><v>true</v><v>-7</v><v>4294967295</v><v>18446744073709551615</v>"
                    "<v>0.100000</v></cfg>\n");
    log.ExpectNone();
    for (const auto &write : typed) {
        fault::Fail fail(Fn::_AppVsnprintf); // the value's text, not that of the line
        EXPECT_CODE(APP_FAILED, write());
    }
    EXPECT_EQ(log.Lines().size(), std::size(typed));
    EXPECT_EQ(Save(pt), text);
}
