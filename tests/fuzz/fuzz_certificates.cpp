// Feeds arbitrary recipient lists to the certificate reader of the certificate-recipient save.
// The input is split at NUL bytes into the texts of the list. The reader must either return one
// certificate per text or name a text of the list that holds none.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "engine/security/recipient_certificates.h"
#include "engine/security/secured_save.h"
#include "tests/fuzz/fuzz_support.h"

using zpdf::fuzz::Check;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> texts(1);
    for (std::size_t i = 0; i < size && texts.size() <= 16; ++i) {
        if (data[i] == 0) {
            texts.emplace_back();
        } else {
            texts.back() += static_cast<char>(data[i]);
        }
    }
    try {
        const zpdf::engine::CertificateStack stack = zpdf::engine::ReadRecipientCertificates(texts);
        Check(stack != nullptr);
        Check(static_cast<std::size_t>(sk_X509_num(stack.get())) == texts.size());
        for (int i = 0; i < sk_X509_num(stack.get()); ++i)
            Check(sk_X509_value(stack.get(), i) != nullptr);
    } catch (const zpdf::engine::SecuredSaveError& e) {
        Check(std::string_view(e.what()).starts_with("Recipient "));
        const unsigned long index = std::strtoul(e.what() + 10, nullptr, 10);
        Check(index >= 1 && index <= texts.size());
    }
    return 0;
}
