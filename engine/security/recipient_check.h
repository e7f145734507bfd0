// Checking the recipients' certificates before a certificate-recipient save, so that a caller
// can tell which of its texts is at fault. This header is free of crypto headers.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "engine/security/secured_save.h"

namespace zpdf::engine {

// A recipient text that cannot be used: it holds no certificate, or a certificate whose key
// cannot receive the file key.
class RecipientCertificateError : public SecuredSaveError {
  public:
    RecipientCertificateError(std::size_t text, const std::string& reason)
        : SecuredSaveError("Recipient " + std::to_string(text + 1) + " " + reason),
          text_(text),
          reason_(reason) {}
    // The text at fault, counted from 0.
    std::size_t Text() const { return text_; }
    // Why, without the text's number ("holds no PEM certificate", "certificate 2 has ...").
    const std::string& Reason() const { return reason_; }

  private:
    std::size_t text_;
    std::string reason_;
};

// Reads every certificate of every text as the save would, and throws
// RecipientCertificateError for the first one at fault.
void CheckRecipientCertificates(const std::vector<std::string>& recipients);

}  // namespace zpdf::engine
