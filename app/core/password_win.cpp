// Stored passwords on Windows: DPAPI for the current user, as "dpapi:" and
// Base64, so the file alone does not give the password away.
#include <windows.h>
#include <wincrypt.h>

#include <limits>

#include "app/core/platform_files.h"
#include "app/core/stores.h"

namespace velphone {

namespace {

constexpr std::string_view kPrefix = "dpapi:";

// Frees what DPAPI allocated for its output.
struct LocalBlob {
    DATA_BLOB blob{};
    ~LocalBlob() {
        // The output of an unprotect is the password itself.
        if (blob.pbData != nullptr) SecureZeroMemory(blob.pbData, blob.cbData);
        LocalFree(blob.pbData);
    }
};

DATA_BLOB blobOf(std::string& bytes) {
    return {static_cast<DWORD>(bytes.size()), reinterpret_cast<BYTE*>(bytes.data())};
}

}  // namespace

std::optional<std::string> protectPassword(const std::string& plain) {
    if (plain.empty()) return std::string();
    if (plain.size() > std::numeric_limits<DWORD>::max() / 2) return std::nullopt;
    std::string bytes = plain;
    DATA_BLOB in = blobOf(bytes);
    LocalBlob out;
    if (!CryptProtectData(&in, L"Velmora Phone", nullptr, nullptr, nullptr, CRYPTPROTECT_UI_FORBIDDEN,
                          &out.blob)) {
        return std::nullopt;
    }
    DWORD length = 0;
    constexpr DWORD kFlags = CRYPT_STRING_BASE64 | CRYPT_STRING_NOCRLF;
    if (!CryptBinaryToStringA(out.blob.pbData, out.blob.cbData, kFlags, nullptr, &length)) return std::nullopt;
    std::string text(length, '\0');
    if (!CryptBinaryToStringA(out.blob.pbData, out.blob.cbData, kFlags, text.data(), &length)) {
        return std::nullopt;
    }
    // Without the buffer the length counts the terminating NUL; with it, not.
    text.resize(length);
    return std::string(kPrefix) + text;
}

std::optional<std::string> unprotectPassword(const std::string& stored) {
    if (!stored.starts_with(kPrefix)) return stored;
    const std::string_view base64 = std::string_view(stored).substr(kPrefix.size());
    if (base64.size() > std::numeric_limits<DWORD>::max() / 2) return std::nullopt;
    DWORD size = 0;
    const auto length = static_cast<DWORD>(base64.size());
    if (!CryptStringToBinaryA(base64.data(), length, CRYPT_STRING_BASE64, nullptr, &size, nullptr, nullptr)) {
        return std::nullopt;
    }
    std::string bytes(size, '\0');
    if (!CryptStringToBinaryA(base64.data(), length, CRYPT_STRING_BASE64, reinterpret_cast<BYTE*>(bytes.data()),
                              &size, nullptr, nullptr)) {
        return std::nullopt;
    }
    bytes.resize(size);
    DATA_BLOB in = blobOf(bytes);
    LocalBlob out;
    if (!CryptUnprotectData(&in, nullptr, nullptr, nullptr, nullptr, CRYPTPROTECT_UI_FORBIDDEN, &out.blob)) {
        return std::nullopt;
    }
    return std::string(reinterpret_cast<const char*>(out.blob.pbData), out.blob.cbData);
}

namespace detail {

bool storedPasswordExposed(const std::filesystem::path&, const std::string& stored) {
    return !stored.empty() && !stored.starts_with(kPrefix);
}

}  // namespace detail

}  // namespace velphone
