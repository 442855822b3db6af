package kavra.junit;

import java.nio.file.Files;
import java.nio.file.Paths;

/** What the process holds: JNI global references and resident memory. */
final class JvmProbe {
    static {
        System.loadLibrary("kavra_junit_native");
    }

    private JvmProbe() {}

    /** Strong JNI global references held in the JVM. */
    static native int globalRefCount();

    /** Resident set size in KiB. */
    static long residentKiB() throws Exception {
        for (String line : Files.readAllLines(Paths.get("/proc/self/status"))) {
            if (line.startsWith("VmRSS:")) {
                return Long.parseLong(line.replaceAll("[^0-9]", ""));
            }
        }
        throw new IllegalStateException("no VmRSS");
    }
}
