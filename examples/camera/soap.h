// SPDX-License-Identifier: MIT
//
// The SOAP 1.2 messages of WS-Discovery (2005/04): reading them whatever their prefixes, and
// writing them.
#ifndef CAMERA_SOAP_H
#define CAMERA_SOAP_H

#include <appcore/appcore.h>

namespace camera
{

constexpr char kSoapNs[] = "http://www.w3.org/2003/05/soap-envelope";
constexpr char kAddressingNs[] = "http://schemas.xmlsoap.org/ws/2004/08/addressing";
constexpr char kDiscoveryNs[] = "http://schemas.xmlsoap.org/ws/2005/04/discovery";
constexpr char kNetworkNs[] = "http://www.onvif.org/ver10/network/wsdl";
constexpr char kDeviceNs[] = "http://www.onvif.org/ver10/device/wsdl";

constexpr char kAnonymous[] = "http://schemas.xmlsoap.org/ws/2004/08/addressing/role/anonymous";
constexpr char kEverybody[] = "urn:schemas-xmlsoap-org:ws:2005:04:discovery";

constexpr char kProbeAction[] = "http://schemas.xmlsoap.org/ws/2005/04/discovery/Probe";
constexpr char kMatchAction[] = "http://schemas.xmlsoap.org/ws/2005/04/discovery/ProbeMatches";
constexpr char kResolveAction[] = "http://schemas.xmlsoap.org/ws/2005/04/discovery/Resolve";
constexpr char kResolveMatchAction[] =
    "http://schemas.xmlsoap.org/ws/2005/04/discovery/ResolveMatches";
constexpr char kHelloAction[] = "http://schemas.xmlsoap.org/ws/2005/04/discovery/Hello";
constexpr char kByeAction[] = "http://schemas.xmlsoap.org/ws/2005/04/discovery/Bye";

constexpr char kDiscoveryGroup[] = "239.255.255.250";
constexpr uint16_t kDiscoveryPort = 3702;
constexpr uint32_t kMessageSize = 8192;   // of what is sent
constexpr uint32_t kDatagramSize = 32768; // of what is received; what is longer is cut
constexpr char kNameScope[] = "onvif://www.onvif.org/name/";
constexpr char kHardwareScope[] = "onvif://www.onvif.org/hardware/";

// ---- Reading ------------------------------------------------------------------------------------

// A message: pointers into its tree, null where it has nothing.
struct TSoapMessage {
    mxml_node_t *ptTree;
    mxml_node_t *ptHeader;
    mxml_node_t *ptBody;
    const char *szAction;
    const char *szMessageId;
    const char *szRelatesTo;
};

// What is not one whole XML document gives false.  Broken or not, SoapFree() it.
bool SoapParse(const char *szText, uint32_t dwLength, TSoapMessage *ptMessage);
void SoapFree(TSoapMessage *ptMessage);

// SOAP forbids document type declarations; whoever sends one may want to see them followed.
bool SoapHasDocumentType(const TSoapMessage &tMessage);
// Whether each header block that whoever receives the message must understand is one of those that
// discovery has.
bool SoapIsUnderstood(const TSoapMessage &tMessage);

// The first child element of a namespace and local name; a null parent has none.
mxml_node_t *SoapChild(mxml_node_t *ptParent, const char *szNamespace, const char *szLocal);
mxml_node_t *SoapNext(mxml_node_t *ptNode, const char *szNamespace, const char *szLocal);
// An element's text; empty without one, null for a null element.
const char *SoapText(mxml_node_t *ptNode);
// The two texts are equal, blanks around the first aside.
bool SoapEqual(const char *szText, const char *szWanted);
// A qualified name, such as in Types, means this namespace and local name where it stands.
bool SoapNameIs(mxml_node_t *ptNode, const char *szName, uint32_t dwLen, const char *szNamespace,
                const char *szLocal);

// ---- Writing ------------------------------------------------------------------------------------

struct TSoapWriter {
    mxml_node_t *ptTree;
    mxml_node_t *ptHeader;
    mxml_node_t *ptBody;
    bool bFailed;
    char achMessageId[48];
};

// Starts an envelope with the header's Action, MessageID, To and, unless null, RelatesTo.
void SoapBegin(TSoapWriter *ptWriter, const char *szAction, const char *szTo,
               const char *szRelatesTo);
// Adds an element, with a text unless that is null.  A failure is found by SoapEnd().
mxml_node_t *SoapAdd(TSoapWriter *ptWriter, mxml_node_t *ptParent, const char *szName,
                     const char *szText);
// Writes the message and frees its tree.  The length; 0 when something failed or does not fit.
uint32_t SoapEnd(TSoapWriter *ptWriter, char *szBuf, uint32_t dwSize);

} // namespace camera

#endif
