#pragma once
// Builds signed query strings for GET requests to a server that shares a
// secret (the channel secret) with the router: every parameter value is
// encrypted under a key derived from the secret and a fresh nonce, and the
// whole query is signed. Byte strings (digests, keys, cipher text) are held in
// std::string and may contain any byte. Diagnostics go to standard output.
#include <cstddef>
#include <string>
#include <vector>

class ChannelSecret {
public:
    ChannelSecret() = default;
    virtual ~ChannelSecret() = default;

    // Builds "_deviceId=...&name=value...&_nonce=...&_iv=...&signature=..."
    // into `query` for the resource `resource`. `channelSecret` is standard
    // base64. Returns false, leaving `query` unchanged, when the lists differ
    // in length, the secret does not decode or an encoding step fails.
    static bool getSecretQuery(std::string& query, const std::vector<std::string>& names,
                               const std::vector<std::string>& values, const std::string& deviceId,
                               const std::string& channelSecret, const std::string& resource);

    // AES-CBC with PKCS#7 padding: AES-128 for a 16-byte key, AES-256 for a
    // 32-byte key, the first 16 bytes of `iv` as the vector. Replaces `cipher`.
    // False for any other key length, an IV shorter than 16 bytes or an
    // OpenSSL failure.
    static bool aesEncrypt(std::string& cipher, const std::string& key, const std::string& iv,
                           const std::string& plain);

    // Standard base64 with padding and no line breaks, appended to `text`.
    // False when OpenSSL fails.
    static bool base64Encode(std::string& text, const char* bytes, size_t length);
    // Decodes standard base64 and appends the bytes to `bytes`. False when
    // the decoder fails to read, or non-empty text decodes to nothing.
    static bool base64Decode(std::string& bytes, const char* text, size_t length);
    // URL-safe base64 of `input` ("-" and "_", no padding) into `text`. False
    // when the encoding fails.
    static bool urlSafeBase64Encode(std::string& text, const std::string& input);

    // Replaces `text` with `length` random lowercase hex digits. The generator
    // is seeded with the current second, so calls within one second repeat.
    // Always true.
    static bool getRandomString(std::string& text, int length);

    // Two lowercase hex digits per byte.
    static std::string toHexCode(const char* bytes, size_t length);
    // The 20 raw bytes of the SHA-1 digest of `data`.
    static std::string sha1Digest(const std::string& data);
    // The 32 raw bytes of the SHA-256 digest of `data`.
    static std::string sha256Digest(const std::string& data);
};
