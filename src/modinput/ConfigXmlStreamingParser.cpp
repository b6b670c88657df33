#include "modinput/ConfigXmlStreamingParser.h"

#include "platform/SkorvaException.h"

namespace skorva {

void ConfigXmlStreamingParser::onElementStart(std::string_view name) {
    if (!name.empty() && (name[0] == '?' || name[0] == '!')) return;
    if (!path_.empty()) path_ += '/';
    path_ += name;
    int next = -1;
    switch (state_) {
    case Outside:
        if (path_ == "input") state_ = InInput;
        return;  // any other root is read without complaint and yields nothing
    case InInput:
        if (name == "server_host") next = InServerHost;
        else if (name == "server_uri") next = InServerUri;
        else if (name == "session_key") next = InSessionKey;
        else if (name == "checkpoint_dir") next = InCheckpointDir;
        else if (name == "configuration") next = InConfiguration;
        break;
    case InConfiguration:
        if (name == "stanza") next = InStanza;
        break;
    case InStanza:
        if (name == "param") next = InParam;
        break;
    default:
        break;
    }
    if (next < 0) {
        throw SkorvaException("Unexpected entity \"%.*s\" found under path \"%s\" in the XML configuration input.",
                              static_cast<int>(name.size()), name.data(), path_.c_str());
    }
    state_ = next;
    if (state_ == InStanza) stanza_ = nullptr;
}

void ConfigXmlStreamingParser::onAttributeName(std::string_view name) {
    if (name != "name") return;
    if (state_ == InStanza) {
        state_ = ExpectStanzaName;
    } else if (state_ == InParam) {
        state_ = ExpectParamName;
        paramName_.clear();
    }
}

void ConfigXmlStreamingParser::onAttributeValue(std::string_view value) {
    if (state_ == ExpectStanzaName) {
        std::string key(value);
        auto it = config_.stanzas.find(key);
        if (it == config_.stanzas.end()) {
            it = config_.stanzas.emplace(key, Stanza{}).first;
            it->second.name = key;
        }
        stanza_ = &it->second;
        state_ = InStanza;
    } else if (state_ == ExpectParamName) {
        paramName_.assign(value);
        state_ = InParam;
    }
}

void ConfigXmlStreamingParser::onCharacterData(std::string_view data) {
    switch (state_) {
    case InServerHost:
    case InServerUri:
    case InSessionKey:
    case InParam:
    case InCheckpointDir:
        text_.append(data);
        break;
    default:
        break;
    }
}

// Where the text of a value element under <input> goes.
std::string* ConfigXmlStreamingParser::valueOf(int state) {
    switch (state) {
    case InServerHost: return &config_.serverHost;
    case InServerUri: return &config_.serverUri;
    case InSessionKey: return &config_.sessionKey;
    default: return &config_.checkpointDir;
    }
}

void ConfigXmlStreamingParser::onElementEnd(std::string_view name) {
    if (!name.empty() && (name[0] == '?' || name[0] == '!')) return;
    switch (state_) {
    case InServerHost:
    case InServerUri:
    case InSessionKey:
    case InCheckpointDir:
        *valueOf(state_) = text_;
        state_ = InInput;
        break;
    case InConfiguration:
        state_ = InInput;
        break;
    case InStanza:
        stanza_ = nullptr;
        state_ = InConfiguration;
        break;
    case InParam:
        // Two params of one name: the later value wins.
        if (stanza_ && !paramName_.empty()) stanza_->params[paramName_] = text_;
        paramName_.clear();
        state_ = InStanza;
        break;
    case InInput:
        state_ = Outside;
        break;
    default:
        break;
    }
    text_.clear();
    size_t cut = path_.rfind('/');
    path_.erase(cut == std::string::npos ? 0 : cut);
}

}  // namespace skorva
