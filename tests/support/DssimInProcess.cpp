#include "DssimInProcess.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

#include "eventlog/EvtApi.h"

namespace skorva::test {

void installDssimApi() {
    DsApi& api = apiTable().ds;
    api.DsGetDcNameW = &dssim::DsGetDcNameW;
    api.NetApiBufferFree = &dssim::NetApiBufferFree;
    api.DsBindW = &dssim::DsBindW;
    api.DsUnBindW = &dssim::DsUnBindW;
    api.DsMapSchemaGuidsW = &dssim::DsMapSchemaGuidsW;
    api.DsCrackNamesW = &dssim::DsCrackNamesW;
    api.DsFreeNameResultW = &dssim::DsFreeNameResultW;
    api.DsFreeSchemaGuidMapW = &dssim::DsFreeSchemaGuidMapW;
}

DssimDirectory::DssimDirectory() : folder_(L"dssim") {
    dssim::setDirectoryRoot(folder_.path());
    dssim::clearFaults();
    installDssimApi();
}

DssimDirectory::~DssimDirectory() {
    dssim::setFaults("");
    dssim::clearFaults();
    dssim::setDirectoryRoot(L"");
}

void DssimDirectory::write(const std::string& text) {
    if (!writeFile(folder_.path() + L"\\directory.txt", text))
        throw std::runtime_error("dssim: cannot write directory.txt: " + std::to_string(GetLastError()));
    dssim::setDirectoryRoot(folder_.path());  // read again even when size and time look alike
}

void DssimDirectory::useSample() {
    std::ifstream in(DSSIM_SAMPLE_DIRECTORY "/directory.txt", std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    if (!in) throw std::runtime_error("dssim: the sample directory cannot be read");
    write(text.str());
}

void DssimDirectory::setFaults(const std::string& rules) {
    std::string error;
    if (!dssim::setFaults(rules, &error)) throw std::runtime_error("dssim: fault rules: " + error);
}

}  // namespace skorva::test
