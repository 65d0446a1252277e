// SPDX-License-Identifier: MIT
//
// The XML writers: any values under any parents, then read back, from the tree itself and from what
// was saved of it and loaded again.
#include <algorithm>
#include <vector>

#include "appcore/xml.h"
#include "fuzz.h"
#include "xml/mxml_version.h"

namespace
{

Fence s_document;

struct TWritten {
    mxml_node_t *ptNode;
    std::string name; // of its own
    std::string text; // of a value
    bool bData;       // a section
    std::string attribute;
};

// What XML can hold; a section must not end early.
std::string Plain(const std::string &text)
{
    std::string plain;
    for (const unsigned char by : text)
        plain += by >= 0x80 ? std::string("\xC3\xA4")
                            : std::string(1, by < ' ' || by == ']' ? '&' : static_cast<char>(by));
    return plain;
}

class Writer
{
public:
    explicit Writer(Parts &parts) : m_parts(parts)
    {
        m_written.push_back({mxmlNewElement(nullptr, "root"), "root", "", false, ""});
        while (m_parts.Left() > 0 && m_written.size() < 12)
            Write();
    }
    ~Writer() { mxmlDelete(m_written[0].ptNode); }
    const std::vector<TWritten> &Written() const { return m_written; }

private:
    // The value's element, or nothing where the value has no text of 63 characters.
    void Write()
    {
        TWritten &father = m_written[m_parts.Byte() % m_written.size()];
        TWritten made = {father.ptNode, "n" + std::to_string(m_written.size()), "", false, ""};
        const uint8_t byKind = m_parts.Byte() % 10;
        const bool bOutside = m_parts.Byte() % 4 != 0; // is it wanted?
        mxml_node_t *const ptBefore = mxmlGetLastChild(father.ptNode);
        m_pptNew = bOutside || byKind % 7 == 0 ? &made.ptNode : nullptr;
        m_ptFather = father.ptNode;
        m_szName = made.name.c_str();
        if (byKind >= 8)
            return WriteAttribute(father, byKind == 8);
        const uint32_t dwCode =
            byKind == 0 || byKind == 7 ? WriteElement(made, byKind == 7) : WriteValue(made, byKind);
        mxml_node_t *const ptAfter = mxmlGetLastChild(m_ptFather);
        Require(TakeLines() == (dwCode == APP_OK ? 0u : 1u));
        if (made.text.size() > 63 && byKind == 5) {
            Require(dwCode == APP_FAILED && ptAfter == ptBefore);
            Require(made.ptNode == (m_pptNew ? nullptr : m_ptFather));
            return;
        }
        Require(dwCode == APP_OK && made.ptNode == (m_pptNew ? ptAfter : m_ptFather));
        made.ptNode = ptAfter;
        m_written.push_back(made);
    }

    uint32_t WriteElement(TWritten &made, bool bData)
    {
        if (!bData)
            return AppXmlAddSonNode(m_ptFather, m_szName, m_pptNew);
        made.bData = true;
        made.text = Plain(m_parts.Text());
        return AppXmlAddSonNode_CDATA(m_ptFather, m_szName, made.text.c_str(), m_pptNew);
    }

    uint32_t WriteValue(TWritten &made, uint8_t byKind)
    {
        const uint32_t dw = m_parts.Number();
        const uint64_t qw = static_cast<uint64_t>(m_parts.Number()) << 32 | dw;
        switch (byKind) {
        case 1:
            made.text = Plain(m_parts.Text());
            return AppXmlAddSonNode_Str(m_ptFather, m_szName, made.text.c_str(), m_pptNew);
        case 2:
            made.text = std::to_string(static_cast<int32_t>(dw));
            return AppXmlAddSonNode_s32(m_ptFather, m_szName, static_cast<int32_t>(dw), m_pptNew);
        case 3:
            made.text = std::to_string(dw);
            return AppXmlAddSonNode_u32(m_ptFather, m_szName, dw, m_pptNew);
        case 4:
            made.text = std::to_string(qw);
            return AppXmlAddSonNode_u64(m_ptFather, m_szName, qw, m_pptNew);
        case 5: {
            double dValue;
            memcpy(&dValue, &qw, sizeof(dValue));
            made.text = Printed("%f", dValue);
            return AppXmlAddSonNode_Double(m_ptFather, m_szName, dValue, m_pptNew);
        }
        default:
            made.text = dw ? "true" : "false";
            return AppXmlAddSonNode_Bool(m_ptFather, m_szName, dw, m_pptNew);
        }
    }

    // Replaces the one before.
    void WriteAttribute(TWritten &node, bool bSigned)
    {
        const uint32_t dw = m_parts.Number();
        const auto n = static_cast<int32_t>(dw);
        node.attribute = bSigned ? std::to_string(n) : std::to_string(dw);
        Require((bSigned ? AppXmlSetAttr_s32(node.ptNode, "a", n)
                         : AppXmlSetAttr_u32(node.ptNode, "a", dw)) == APP_OK);
        Require(TakeLines() == 0 && mxmlElementGetAttrCount(node.ptNode) == 1);
    }

    Parts &m_parts;
    std::vector<TWritten> m_written;
    mxml_node_t *m_ptFather, **m_pptNew;
    const char *m_szName;
};

// Each element is below the root, once, with its value and its attribute.
void CheckReadingBack(mxml_node_t *ptRoot, const TWritten &written)
{
    mxml_node_t *ptNode = ptRoot;
    if (written.name != "root")
        Require(AppXmlGetSonNode(ptRoot, written.name.c_str(), &ptNode) == APP_OK);
    const char *szText = nullptr;
    if (written.bData) {
        Require(AppXmlGetSonNodeValue_CData(ptRoot, written.name.c_str(), &szText) == APP_OK);
        Require(szText == written.text);
    } else if (!written.text.empty()) {
        Require(AppXmlGetSonNodeValue_Str(mxmlGetParent(ptNode), written.name.c_str(), &szText) ==
                APP_OK);
        Require(szText == written.text);
    }
    Require(mxmlElementGetAttrCount(ptNode) == (written.attribute.empty() ? 0 : 1));
    if (written.attribute.empty())
        return;
    Require(AppXmlGetAttr_Str(ptNode, "a", &szText) == APP_OK && szText == written.attribute);
}

uint32_t Load(const std::string &text, mxml_node_t **pptTree)
{
    return AppXmlLoad(s_document.Place(text), static_cast<uint32_t>(text.size()), pptTree);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    mxmlSetErrorCallback([](const char *) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pbyData, size_t nSize)
{
    Parts parts(pbyData, nSize);
    const size_t nCut = parts.Byte();
    const Writer writer(parts);
    mxml_node_t *const ptRoot = writer.Written()[0].ptNode;
    for (const TWritten &written : writer.Written())
        CheckReadingBack(ptRoot, written);
    char *szSaved = mxmlSaveAllocString(ptRoot, MXML_NO_CALLBACK);
    const std::string saved = szSaved;
    free(szSaved);
    mxml_node_t *ptLoaded = nullptr;
    Require(Load(saved, &ptLoaded) == APP_OK);
    for (const TWritten &written : writer.Written())
        CheckReadingBack(ptLoaded, written);
    mxmlDelete(ptLoaded);
    // Broken off before its last '>' it is no document; nor is it with another root behind it.
    for (size_t nSize = nCut % saved.rfind('>'); nSize < saved.rfind('>'); nSize += 37)
        Require(Load(saved.substr(0, nSize), &ptLoaded) == APP_BAD_VALUE && !ptLoaded);
    Require(Load(saved + "<b/>", &ptLoaded) == APP_BAD_VALUE && !ptLoaded);
    Require(TakeLines() == 0);
    return 0;
}
