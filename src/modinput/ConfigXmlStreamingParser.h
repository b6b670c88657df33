#pragma once
// Reads the configuration document the daemon writes on standard input:
// connection values, the checkpoint directory and the stanzas with their
// parameters. Fed in pieces; an element where none belongs raises
// SkorvaException.

#include <string>
#include <string_view>

#include "modinput/InputConfig.h"
#include "platform/XmlTokenizer.h"

namespace skorva {

class ConfigXmlStreamingParser : public XmlTokenizer {
public:
    ConfigXmlStreamingParser() = default;

    const InputConfig& config() const { return config_; }
    InputConfig takeConfig() { return std::move(config_); }

protected:
    void onElementStart(std::string_view name) override;
    void onElementEnd(std::string_view name) override;
    void onAttributeName(std::string_view name) override;
    void onAttributeValue(std::string_view value) override;
    void onCharacterData(std::string_view data) override;

private:
    enum State {
        Outside = 0,
        InInput = 1,
        InServerHost = 2,
        InServerUri = 3,
        InSessionKey = 4,
        InConfiguration = 5,
        InStanza = 6,
        ExpectStanzaName = 7,
        InParam = 8,
        ExpectParamName = 9,
        InCheckpointDir = 10,
    };

    std::string* valueOf(int state);

    InputConfig config_;
    std::string path_;
    int state_ = Outside;
    std::string text_;
    std::string paramName_;
    Stanza* stanza_ = nullptr;
};

}  // namespace skorva
