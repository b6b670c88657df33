#include "EventBuilder.h"

#include <cstdio>

#include "Xml.h"

namespace evtsim {

namespace {

void element(std::string& out, const char* name, const std::string& text) {
    out += '<';
    out += name;
    out += '>';
    appendEscaped(out, text, false);
    out += "</";
    out += name;
    out += '>';
}

}  // namespace

std::string buildEventXml(const EventSpec& s) {
    std::string out = "<Event xmlns='http://schemas.microsoft.com/win/2004/08/events/event'><System><Provider Name='";
    appendEscaped(out, s.provider, true);
    out += "'";
    if (!s.providerGuid.empty()) out += " Guid='" + s.providerGuid + "'";
    if (s.classic) out += " EventSourceName='" + s.provider + "'";
    out += "/>";
    if (s.classic) out += "<EventID Qualifiers='" + std::to_string(s.qualifiers) + "'>" + std::to_string(s.eventId) + "</EventID>";
    else out += "<EventID>" + std::to_string(s.eventId) + "</EventID>";
    out += "<Version>" + std::to_string(s.version) + "</Version><Level>" + std::to_string(s.level) + "</Level><Task>" +
           std::to_string(s.task) + "</Task><Opcode>" + std::to_string(s.opcode) + "</Opcode>";
    char kw[32];
    std::snprintf(kw, sizeof kw, "0x%llx", static_cast<unsigned long long>(s.keywords));
    out += std::string("<Keywords>") + kw + "</Keywords><TimeCreated SystemTime='" + s.timeCreated +
           "'/><EventRecordID>0</EventRecordID><Correlation/><Execution ProcessID='" + std::to_string(s.processId) +
           "' ThreadID='" + std::to_string(s.threadId) + "'/>";
    if (!s.channel.empty()) element(out, "Channel", s.channel);
    element(out, "Computer", s.computer);
    out += s.userSid.empty() ? "<Security/>" : "<Security UserID='" + s.userSid + "'/>";
    out += "</System>";
    if (s.userData) {
        out += "<UserData><EventXML xmlns='Event_NS'>";
        for (const auto& [name, value] : s.data) element(out, name.empty() ? "Data" : name.c_str(), value);
        out += "</EventXML></UserData>";
    } else if (!s.data.empty() || !s.binary.empty()) {
        out += "<EventData>";
        for (const auto& [name, value] : s.data) {
            out += "<Data";
            if (!name.empty()) {
                out += " Name='";
                appendEscaped(out, name, true);
                out += "'";
            }
            out += ">";
            appendEscaped(out, value, false);
            out += "</Data>";
        }
        if (!s.binary.empty()) element(out, "Binary", s.binary);
        out += "</EventData>";
    } else {
        out += "<EventData/>";
    }
    if (s.rendering) {
        out += "<RenderingInfo Culture='en-US'>";
        element(out, "Message", s.renderMessage);
        element(out, "Level", s.renderLevel);
        element(out, "Task", s.renderTask);
        element(out, "Opcode", s.renderOpcode);
        element(out, "Channel", s.renderChannel);
        element(out, "Provider", s.renderProvider);
        out += "<Keywords>";
        for (const auto& k : s.renderKeywords) element(out, "Keyword", k);
        out += "</Keywords></RenderingInfo>";
    }
    out += "</Event>";
    return out;
}

}  // namespace evtsim
