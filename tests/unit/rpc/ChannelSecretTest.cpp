#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <boost/algorithm/hex.hpp>
#include <boost/algorithm/string/split.hpp>
#include <ctime>
#include <memory>
#include <utility>

#include "rpc/ChannelSecret.h"
#include "system/WebRequest.h"

namespace {

// ---- The server's side, written against OpenSSL directly -----------------

std::string decodeBase64(const std::string& text) {
    if (text.empty() || text.size() % 4 != 0) {
        return std::string();
    }
    std::string bytes(text.size() / 4 * 3, '\0');
    const int length = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(&bytes[0]),
                                       reinterpret_cast<const unsigned char*>(text.data()), text.size());
    if (length < 0) {
        return std::string();
    }
    const size_t padding = text.size() - text.find_last_not_of('=') - 1;
    bytes.resize(static_cast<size_t>(length) - padding);
    return bytes;
}

std::string decodeUrlSafeBase64(std::string text) {
    for (char& c : text) {
        c = c == '-' ? '+' : (c == '_' ? '/' : c);
    }
    text.append((4 - text.size() % 4) % 4, '=');
    return decodeBase64(text);
}

std::string encodeBase64(const std::string& bytes) {
    std::string text(((bytes.size() + 2) / 3) * 4 + 1, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]),
                                       reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    text.resize(static_cast<size_t>(length));
    return text;
}

std::string hash(const EVP_MD* type, const std::string& data) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(data.data(), data.size(), digest, &length, type, nullptr);
    return std::string(reinterpret_cast<char*>(digest), length);
}

std::string decrypt(const std::string& key, const std::string& iv, const std::string& cipher) {
    std::unique_ptr<EVP_CIPHER_CTX, void (*)(EVP_CIPHER_CTX*)> context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    const EVP_CIPHER* type = key.size() == 16 ? EVP_aes_128_cbc() : EVP_aes_256_cbc();
    std::string plain(cipher.size() + 32, '\0');
    unsigned char* out = reinterpret_cast<unsigned char*>(&plain[0]);
    int written = 0;
    int last = 0;
    if (EVP_DecryptInit_ex(context.get(), type, nullptr, reinterpret_cast<const unsigned char*>(key.data()),
                           reinterpret_cast<const unsigned char*>(iv.data())) != 1 ||
        EVP_DecryptUpdate(context.get(), out, &written, reinterpret_cast<const unsigned char*>(cipher.data()),
                          cipher.size()) != 1 ||
        EVP_DecryptFinal_ex(context.get(), out + written, &last) != 1) {
        return "<decrypt failed>";
    }
    plain.resize(static_cast<size_t>(written + last));
    return plain;
}

std::vector<std::pair<std::string, std::string>> splitQuery(const std::string& query) {
    std::vector<std::string> items;
    boost::algorithm::split(items, query, [](char c) { return c == '&'; });
    std::vector<std::pair<std::string, std::string>> pairs;
    for (const std::string& item : items) {
        const size_t equals = item.find('=');
        pairs.emplace_back(item.substr(0, equals), equals == std::string::npos ? "" : item.substr(equals + 1));
    }
    return pairs;
}

// What a server learns from one query: the decrypted parameters, and whether
// the signature holds for the key that it derived itself.
struct VerifiedQuery {
    std::string deviceId;
    std::vector<std::pair<std::string, std::string>> parameters;  // decrypted
    std::string keyHex;
    bool signatureValid = false;
};

VerifiedQuery verifyAsServer(const std::string& query, const std::string& channelSecret, const std::string& resource) {
    VerifiedQuery result;
    auto pairs = splitQuery(query);
    EXPECT_GE(pairs.size(), 4u);
    if (pairs.size() < 4) {
        return result;
    }
    EXPECT_EQ("_deviceId", pairs.front().first);
    EXPECT_EQ("_nonce", pairs[pairs.size() - 3].first);
    EXPECT_EQ("_iv", pairs[pairs.size() - 2].first);
    EXPECT_EQ("signature", pairs.back().first);
    result.deviceId = pairs.front().second;
    const std::string nonce = decodeBase64(WebRequest::urldecode(pairs[pairs.size() - 3].second));
    EXPECT_EQ(16u, nonce.size());
    const std::string ivText = pairs[pairs.size() - 2].second;
    const std::string iv = decodeUrlSafeBase64(ivText);
    const std::string key = hash(EVP_sha256(), decodeBase64(channelSecret) + nonce);
    result.keyHex = boost::algorithm::hex_lower(key);

    std::string parameterText;
    for (size_t i = 1; i + 3 < pairs.size(); ++i) {
        const std::string cipher = decodeUrlSafeBase64(pairs[i].second);
        result.parameters.emplace_back(pairs[i].first, decrypt(key, iv, cipher));
        parameterText += "&" + pairs[i].first + "=" + pairs[i].second;
    }
    const std::string signatureText = "GET&" + resource + "&_deviceId=" + result.deviceId + "&_iv=" + ivText +
                                      parameterText + "&" + encodeBase64(key);
    const std::string signature = WebRequest::urldecode(pairs.back().second);
    result.signatureValid = signature == encodeBase64(hash(EVP_sha1(), signatureText));
    return result;
}

const std::string kSecret = "c2VjcmV0LWtleS1vZi10aGUtY2hhbm5lbA==";  // "secret-key-of-the-channel"

// ---- Tests ------------------------------------------------------------------

// The query for the given parameters (its diagnostics on standard output go
// to `printed`); "failed" when the call refused them.
std::string secretQuery(const std::vector<std::string>& names, const std::vector<std::string>& values,
                        const std::string& secret, const std::string& resource, std::string* printed = nullptr) {
    std::string query = "untouched";
    testing::internal::CaptureStdout();
    const bool made = ChannelSecret::getSecretQuery(query, names, values, "dev-01", secret, resource);
    const std::string output = testing::internal::GetCapturedStdout();
    if (printed) {
        *printed = output;
    }
    return made ? query : (query == "untouched" ? "failed" : "failed, query changed");
}

TEST(ChannelSecretQueryTest, ServerDecryptsValuesAndAcceptsSignature) {
    const std::vector<std::string> names = {"uid", "empty", "note"};
    const std::vector<std::string> values = {"42", "", std::string("h\xc3\xa9llo & more=\0x", 16)};
    std::string printed;
    const std::string query = secretQuery(names, values, kSecret, "/api/v1/apps", &printed);

    const VerifiedQuery verified = verifyAsServer(query, kSecret, "/api/v1/apps");
    EXPECT_TRUE(verified.signatureValid) << query;
    EXPECT_EQ("dev-01", verified.deviceId);
    ASSERT_EQ(3u, verified.parameters.size());
    for (size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(names[i], verified.parameters[i].first);
        EXPECT_EQ(values[i], verified.parameters[i].second);
    }
    EXPECT_NE(std::string::npos, printed.find("device id is dev-01\n"));
    EXPECT_NE(std::string::npos, printed.find("channelSecret id is " + kSecret + "\n"));
    EXPECT_NE(std::string::npos, printed.find("shaSalt=" + verified.keyHex + "\n"));
    EXPECT_NE(std::string::npos, printed.find("signatureText=GET&/api/v1/apps&_deviceId=dev-01&_iv="));

    // A server holding another secret derives another key and rejects the query.
    EXPECT_FALSE(verifyAsServer(query, "b3RoZXItc2VjcmV0", "/api/v1/apps").signatureValid);
    // So does one that signs another resource.
    EXPECT_FALSE(verifyAsServer(query, kSecret, "/api/v1/other").signatureValid);
    // Lists of different lengths and a secret that is no base64 are refused, the query left as it was.
    EXPECT_EQ("failed", secretQuery({"a", "b"}, {"1"}, kSecret, "res"));
    EXPECT_EQ("failed", secretQuery({"a"}, {"1"}, "!!!!", "res"));
}

TEST(ChannelSecretQueryTest, EmptyListsGiveOnlyTheFixedPartsWithAFreshNonce) {
    const std::string query = secretQuery({}, {}, kSecret, "res");
    EXPECT_EQ(4u, splitQuery(query).size());
    EXPECT_TRUE(verifyAsServer(query, kSecret, "res").signatureValid);

    // The IV text: 16 hex characters in URL-safe base64, 22 characters.
    const std::string ivText = splitQuery(query)[2].second;
    EXPECT_EQ(22u, ivText.size());
    EXPECT_EQ(std::string::npos,
              ivText.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"));
    const std::string iv = decodeUrlSafeBase64(ivText);
    EXPECT_EQ(16u, iv.size());
    EXPECT_EQ(std::string::npos, iv.find_first_not_of("0123456789abcdef"));

    // Every query has a nonce of its own (the IV may repeat within a second).
    EXPECT_NE(splitQuery(query)[1].second, splitQuery(secretQuery({}, {}, kSecret, "res"))[1].second);
}

TEST(ChannelSecretCipherTest, AesKeyLengthSelectsCipher) {
    const std::string iv = "0123456789abcdefEXTRA";
    for (const size_t keyLength : {16u, 32u}) {
        const std::string key(keyLength, 'k');
        std::string cipher = "old";
        ASSERT_TRUE(ChannelSecret::aesEncrypt(cipher, key, iv, "attack at dawn!!"));
        EXPECT_EQ(32u, cipher.size());
        EXPECT_EQ("attack at dawn!!", decrypt(key, iv.substr(0, 16), cipher));
    }
    std::string cipher;
    ASSERT_TRUE(ChannelSecret::aesEncrypt(cipher, std::string(32, 'k'), iv, ""));
    EXPECT_EQ(16u, cipher.size());
    std::string encoded;
    ASSERT_TRUE(ChannelSecret::urlSafeBase64Encode(encoded, cipher));
    EXPECT_EQ(22u, encoded.size());

    cipher = "kept";
    EXPECT_FALSE(ChannelSecret::aesEncrypt(cipher, std::string(24, 'k'), iv, "x"));
    EXPECT_FALSE(ChannelSecret::aesEncrypt(cipher, std::string(32, 'k'), "short", "x"));
    EXPECT_EQ("kept", cipher);
}

TEST(ChannelSecretCipherTest, EncodingsAppendToWhatIsThere) {
    std::string text = "prefix:";
    ASSERT_TRUE(ChannelSecret::base64Encode(text, "foobar", 6));
    EXPECT_EQ("prefix:Zm9vYmFy", text);
    std::string bytes = "x";
    ASSERT_TRUE(ChannelSecret::base64Decode(bytes, "Zm9vYg==", 8));
    EXPECT_EQ("xfoob", bytes);

    const std::string binary("\xfb\xff\x00\x10", 4);
    std::string safe = "replaced";
    ASSERT_TRUE(ChannelSecret::urlSafeBase64Encode(safe, binary));
    EXPECT_EQ("-_8AEA", safe);
    std::string roundTrip;
    const std::string standard = encodeBase64(binary);
    ASSERT_TRUE(ChannelSecret::base64Decode(roundTrip, standard.data(), standard.size()));
    EXPECT_EQ(binary, roundTrip);
    // The digests and their hex form are checked by the server's side of the query tests.
}

}  // namespace
