// The peer of `zpdf-bench protect-pubkey`: PDFBox opens an encrypted PDF with its password and
// saves it encrypted with AES-256 for one certificate's holder (PublicKeyProtectionPolicy).
//   java PubKeyBench IN.pdf PASSWORD CERT.pem OUT.pdf
import java.io.File;
import java.io.FileInputStream;
import java.io.InputStream;
import java.security.cert.CertificateFactory;
import java.security.cert.X509Certificate;
import org.apache.pdfbox.pdmodel.PDDocument;
import org.apache.pdfbox.pdmodel.encryption.AccessPermission;
import org.apache.pdfbox.pdmodel.encryption.PublicKeyProtectionPolicy;
import org.apache.pdfbox.pdmodel.encryption.PublicKeyRecipient;

public final class PubKeyBench {
    public static void main(String[] args) throws Exception {
        X509Certificate certificate;
        try (InputStream in = new FileInputStream(args[2])) {
            certificate = (X509Certificate) CertificateFactory.getInstance("X.509")
                    .generateCertificate(in);
        }
        try (PDDocument document = PDDocument.load(new File(args[0]), args[1])) {
            PublicKeyRecipient recipient = new PublicKeyRecipient();
            recipient.setPermission(new AccessPermission());
            recipient.setX509(certificate);
            PublicKeyProtectionPolicy policy = new PublicKeyProtectionPolicy();
            policy.addRecipient(recipient);
            policy.setEncryptionKeyLength(256);
            document.protect(policy);
            document.save(args[3]);
        }
    }
}
