// Signs in at a web server with Java's own GSS-API: java SignIn.java URL [CERTIFICATE]
// By a token of its own making, SPNEGO and then bare Kerberos, whose reply has to prove the service; and as
// HttpURLConnection does it by itself. Prints the three pages.
import java.io.FileInputStream;
import java.io.IOException;
import java.net.HttpURLConnection;
import java.net.URI;
import java.net.URL;
import java.security.KeyStore;
import java.security.cert.CertificateFactory;
import java.util.Base64;
import javax.net.ssl.HttpsURLConnection;
import javax.net.ssl.SSLContext;
import javax.net.ssl.TrustManagerFactory;
import org.ietf.jgss.GSSContext;
import org.ietf.jgss.GSSManager;
import org.ietf.jgss.GSSName;
import org.ietf.jgss.Oid;

class SignIn {
  private static final String SPNEGO = "1.3.6.1.5.5.2";
  private static final String KERBEROS = "1.2.840.113554.1.2.2";
  private static final String SCHEME = "Negotiate ";

  public static void main(String[] arguments) throws Exception {
    System.setProperty("java.security.krb5.conf", System.getenv("KRB5_CONFIG"));
    System.setProperty("javax.security.auth.useSubjectCredsOnly", "false"); // but the credential cache
    URL url = URI.create(arguments[0]).toURL();
    if (arguments.length > 1) trust(arguments[1]);
    for (String mechanism : new String[] {SPNEGO, KERBEROS}) System.out.println(proven(url, new Oid(mechanism)));
    System.out.println(page((HttpURLConnection) url.openConnection()));
  }

  private static String proven(URL url, Oid mechanism) throws Exception {
    GSSManager manager = GSSManager.getInstance();
    GSSName service = manager.createName("HTTP@" + url.getHost(), GSSName.NT_HOSTBASED_SERVICE);
    GSSContext context = manager.createContext(service, mechanism, null, GSSContext.DEFAULT_LIFETIME);
    context.requestMutualAuth(true);
    byte[] token = context.initSecContext(new byte[0], 0, 0);
    HttpURLConnection connection = (HttpURLConnection) url.openConnection();
    connection.setRequestProperty("Authorization", SCHEME + Base64.getEncoder().encodeToString(token));
    String page = page(connection);

    if (context.isEstablished()) throw new IOException("there was nothing to prove");
    byte[] reply = Base64.getDecoder().decode(connection.getHeaderField("WWW-Authenticate").substring(SCHEME.length()));
    byte[] more = context.initSecContext(reply, 0, reply.length);
    if (more != null || !context.isEstablished() || !context.getMutualAuthState()) throw new IOException("not proven");
    return page;
  }

  // Throws unless the status is 200.
  private static String page(HttpURLConnection connection) throws IOException {
    return new String(connection.getInputStream().readAllBytes()).trim();
  }

  private static void trust(String certificate) throws Exception {
    KeyStore store = KeyStore.getInstance(KeyStore.getDefaultType());
    store.load(null);
    try (FileInputStream file = new FileInputStream(certificate)) {
      store.setCertificateEntry("box", CertificateFactory.getInstance("X.509").generateCertificate(file));
    }
    TrustManagerFactory trusted = TrustManagerFactory.getInstance(TrustManagerFactory.getDefaultAlgorithm());
    trusted.init(store);
    SSLContext context = SSLContext.getInstance("TLS");
    context.init(null, trusted.getTrustManagers(), null);
    HttpsURLConnection.setDefaultSSLSocketFactory(context.getSocketFactory());
  }
}
