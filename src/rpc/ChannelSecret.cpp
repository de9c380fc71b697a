#include "rpc/ChannelSecret.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <uuid/uuid.h>

#include <cstdlib>
#include <ctime>
#include <iostream>
#include <memory>

#include "system/WebRequest.h"

namespace {

const size_t kIvLength = 16;

struct BioDeleter {
    void operator()(BIO* bio) const { BIO_free_all(bio); }
};
typedef std::unique_ptr<BIO, BioDeleter> BioChain;

struct CipherDeleter {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};

// A base64 filter over a memory buffer, without line breaks.
BioChain base64Chain(BIO* memory) {
    BIO* base64 = BIO_new(BIO_f_base64());
    if (base64 == nullptr || memory == nullptr) {
        BIO_free(base64);
        BIO_free(memory);
        return BioChain();
    }
    BIO_set_flags(base64, BIO_FLAGS_BASE64_NO_NL);
    return BioChain(BIO_push(base64, memory));
}

std::string digest(const EVP_MD* type, const std::string& data) {
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(data.data(), data.size(), bytes, &length, type, nullptr) != 1) {
        return std::string();
    }
    return std::string(reinterpret_cast<const char*>(bytes), length);
}

// Encrypts each value in turn and appends "&name=value" to `parameters`. A
// value that cannot be encrypted ends the list there: the query then carries
// the parameters before it, which the signature covers as well.
void appendEncryptedParameters(std::string& parameters, const std::vector<std::string>& names,
                               const std::vector<std::string>& values, const std::string& key, const std::string& iv) {
    for (size_t i = 0; i < names.size(); ++i) {
        std::string cipher;
        std::string encoded;
        if (!ChannelSecret::aesEncrypt(cipher, key, iv, values[i]) ||
            !ChannelSecret::urlSafeBase64Encode(encoded, cipher)) {
            std::cout << "aes encrypt error" << std::endl;
            return;
        }
        parameters += "&" + names[i] + "=" + encoded;
    }
}

}  // namespace

bool ChannelSecret::getSecretQuery(std::string& query, const std::vector<std::string>& names,
                                   const std::vector<std::string>& values, const std::string& deviceId,
                                   const std::string& channelSecret, const std::string& resource) {
    if (names.size() != values.size()) {
        return false;
    }
    std::cout << "device id is " << deviceId << std::endl;
    std::cout << "channelSecret id is " << channelSecret << std::endl;

    uuid_t uuid;
    uuid_generate(uuid);
    std::string nonceText;
    std::string secret;
    std::string nonce;
    if (!base64Encode(nonceText, reinterpret_cast<const char*>(uuid), sizeof(uuid)) ||
        !base64Decode(secret, channelSecret.data(), channelSecret.size()) ||
        !base64Decode(nonce, nonceText.data(), nonceText.size())) {
        return false;
    }

    const std::string key = sha256Digest(secret + nonce);
    std::cout << "shaSalt=" << toHexCode(key.data(), key.size()) << std::endl;
    std::string keyText;
    if (!base64Encode(keyText, key.data(), key.size())) {
        return false;
    }

    std::string iv;
    std::string ivText;
    getRandomString(iv, static_cast<int>(kIvLength));
    if (!urlSafeBase64Encode(ivText, iv)) {
        return false;
    }

    std::string parameters;
    appendEncryptedParameters(parameters, names, values, key, iv);

    const std::string signatureText =
        "GET&" + resource + "&_deviceId=" + deviceId + "&_iv=" + ivText + parameters + "&" + keyText;
    std::cout << "signatureText=" << signatureText << std::endl;
    const std::string signatureDigest = sha1Digest(signatureText);
    std::string signature;
    if (!base64Encode(signature, signatureDigest.data(), signatureDigest.size())) {
        return false;
    }

    query = "_deviceId=" + deviceId + parameters + "&_nonce=" + WebRequest::urlencode(nonceText) + "&_iv=" + ivText +
            "&signature=" + WebRequest::urlencode(signature);
    return true;
}

bool ChannelSecret::aesEncrypt(std::string& cipher, const std::string& key, const std::string& iv,
                               const std::string& plain) {
    const EVP_CIPHER* type = nullptr;
    if (key.size() == 16) {
        type = EVP_aes_128_cbc();
    } else if (key.size() == 32) {
        type = EVP_aes_256_cbc();
    } else {
        return false;
    }
    if (iv.size() < kIvLength) {
        return false;
    }
    std::unique_ptr<EVP_CIPHER_CTX, CipherDeleter> context(EVP_CIPHER_CTX_new());
    if (!context) {
        return false;
    }
    const unsigned char* keyBytes = reinterpret_cast<const unsigned char*>(key.data());
    const unsigned char* ivBytes = reinterpret_cast<const unsigned char*>(iv.data());
    if (EVP_EncryptInit_ex(context.get(), type, nullptr, keyBytes, ivBytes) != 1) {
        return false;
    }
    std::string output(plain.size() + EVP_MAX_BLOCK_LENGTH, '\0');
    unsigned char* out = reinterpret_cast<unsigned char*>(&output[0]);
    int written = 0;
    int finalWritten = 0;
    if (EVP_EncryptUpdate(context.get(), out, &written, reinterpret_cast<const unsigned char*>(plain.data()),
                          static_cast<int>(plain.size())) != 1 ||
        EVP_EncryptFinal_ex(context.get(), out + written, &finalWritten) != 1) {
        return false;
    }
    output.resize(static_cast<size_t>(written + finalWritten));
    cipher.swap(output);
    return true;
}

bool ChannelSecret::base64Encode(std::string& text, const char* bytes, size_t length) {
    BioChain chain = base64Chain(BIO_new(BIO_s_mem()));
    if (!chain) {
        return false;
    }
    if ((length > 0 && BIO_write(chain.get(), bytes, static_cast<int>(length)) != static_cast<int>(length)) ||
        BIO_flush(chain.get()) != 1) {
        return false;
    }
    char* encoded = nullptr;
    const long encodedLength = BIO_get_mem_data(BIO_next(chain.get()), &encoded);
    if (encodedLength > 0) {
        text.append(encoded, static_cast<size_t>(encodedLength));
    }
    return true;
}

bool ChannelSecret::base64Decode(std::string& bytes, const char* text, size_t length) {
    BioChain chain = base64Chain(BIO_new_mem_buf(text, static_cast<int>(length)));
    if (!chain) {
        return false;
    }
    char buffer[512];
    std::string decoded;
    for (;;) {
        const int got = BIO_read(chain.get(), buffer, sizeof(buffer));
        if (got < 0) {
            return false;
        }
        if (got == 0) {
            break;
        }
        decoded.append(buffer, static_cast<size_t>(got));
    }
    // The base64 filter reports text it cannot decode as an empty stream, not
    // as an error: text that yields no bytes at all counts as a failed read.
    if (length > 0 && decoded.empty()) {
        return false;
    }
    bytes += decoded;
    return true;
}

bool ChannelSecret::urlSafeBase64Encode(std::string& text, const std::string& input) {
    std::string standard;
    if (!base64Encode(standard, input.data(), input.size())) {
        return false;
    }
    std::string safe;
    for (const char c : standard) {
        if (c == '=') {
            break;
        }
        safe += c == '+' ? '-' : (c == '/' ? '_' : c);
    }
    text.swap(safe);
    return true;
}

bool ChannelSecret::getRandomString(std::string& text, int length) {
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    text.clear();
    for (int i = 0; i < length; ++i) {
        const int digit = std::rand() % 16;
        text += static_cast<char>(digit <= 9 ? '0' + digit : 'a' + digit - 10);
    }
    return true;
}

std::string ChannelSecret::toHexCode(const char* bytes, size_t length) {
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(length * 2);
    for (size_t i = 0; i < length; ++i) {
        const unsigned char byte = static_cast<unsigned char>(bytes[i]);
        hex += digits[byte >> 4];
        hex += digits[byte & 0x0f];
    }
    return hex;
}

std::string ChannelSecret::sha1Digest(const std::string& data) {
    return digest(EVP_sha1(), data);
}

std::string ChannelSecret::sha256Digest(const std::string& data) {
    return digest(EVP_sha256(), data);
}
