// Test certificates from the `openssl` command: RSA keys (every TLS stack
// the tests meet takes them), valid for a day.
#include "support/test_certificates.h"

#include <chrono>
#include <vector>

#include "support/process.h"
#include "support/temp_dir.h"

namespace kelsip::test {

namespace {

bool runOpenssl(const std::filesystem::path& folder, std::vector<std::string> arguments, std::string* error) {
    Process p;
    ProcessOptions options;
    options.program = Process::findProgram("openssl");
    options.arguments = std::move(arguments);
    options.workingDirectory = folder;
    options.logFile = folder / "openssl.log";
    if (options.program.empty() || !p.start(options, error)) {
        if (error != nullptr && error->empty()) *error = "openssl not found";
        return false;
    }
    if (p.waitForExit(std::chrono::seconds(30)) != 0) {
        if (error != nullptr) *error = "openssl failed: " + p.log();
        return false;
    }
    return true;
}

// A key and a certificate for `name` with subjectAltName `altNames`,
// signed by the CA in `folder`, or by itself when `selfSigned`.
bool makeCertificate(const std::filesystem::path& folder, const std::string& stem, const std::string& name,
           const std::string& altNames, bool selfSigned, std::string* error) {
    const std::string subject = "/CN=" + name;
    if (selfSigned) {
        return runOpenssl(folder, {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "1", "-keyout",
                                   stem + ".key", "-out", stem + ".pem", "-subj", subject, "-addext",
                                   "subjectAltName=" + altNames},
                          error);
    }
    const std::string extensions = stem + ".ext";
    if (!writeTextFile(folder / extensions, "subjectAltName=" + altNames +
                                                "\nbasicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n")) {
        if (error != nullptr) *error = "cannot write " + extensions;
        return false;
    }
    return runOpenssl(folder, {"req", "-new", "-newkey", "rsa:2048", "-nodes", "-keyout", stem + ".key", "-out",
                               stem + ".csr", "-subj", subject},
                      error) &&
           runOpenssl(folder, {"x509", "-req", "-in", stem + ".csr", "-CA", "ca.pem", "-CAkey", "ca.key",
                               "-CAcreateserial", "-days", "1", "-out", stem + ".pem", "-extfile", extensions},
                      error);
}

}  // namespace

std::optional<TestCertificates> makeTestCertificates(const std::filesystem::path& folder, std::string* error) {
    if (!Process::supported()) {
        if (error != nullptr) *error = "cannot start openssl here";
        return std::nullopt;
    }
    const bool made =
        runOpenssl(folder, {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "1", "-keyout", "ca.key",
                            "-out", "ca.pem", "-subj", "/CN=Velmora Test CA", "-addext",
                            "basicConstraints=critical,CA:TRUE", "-addext", "keyUsage=critical,keyCertSign,cRLSign"},
                   error) &&
        makeCertificate(folder, "server", "test.local", "DNS:test.local,URI:sip:test.local", false, error) &&
        makeCertificate(folder, "wrong", "wrong.local", "DNS:wrong.local", false, error) &&
        makeCertificate(folder, "self", "test.local", "DNS:test.local", true, error);
    if (!made) return std::nullopt;
    const auto pair = [&](const std::string& stem) {
        return CertificatePair{folder / (stem + ".pem"), folder / (stem + ".key")};
    };
    return TestCertificates{folder / "ca.pem", pair("server"), pair("wrong"), pair("self")};
}

}  // namespace kelsip::test
