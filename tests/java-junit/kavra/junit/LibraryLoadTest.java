package kavra.junit;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.File;
import java.io.FileOutputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.TimeUnit;
import java.util.jar.JarEntry;
import java.util.jar.JarFile;
import java.util.jar.JarOutputStream;

import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/**
 * Loading the library in a JVM of its own: refused when a class whose natives it registers is missing, and
 * FFmpeg silent once it is loaded. (Every other test class loads it and uses the natives it registered.)
 */
class LibraryLoadTest {
    /** The product jar without the trimmer class, in a JVM of its own: loading fails, blamed on the editor. */
    @Test
    void missingTrimmerClassRefusesTheLibrary(@TempDir Path dir) throws Exception {
        String reduced = dir.resolve("reduced.jar").toString();
        StringBuilder classpath = new StringBuilder(reduced);
        for (String entry : System.getProperty("kavra.classpath").split(File.pathSeparator)) {
            if (!entry.endsWith(".jar")) {
                classpath.append(File.pathSeparator).append(entry);
                continue;
            }
            try (JarFile in = new JarFile(entry);
                    JarOutputStream out = new JarOutputStream(new FileOutputStream(reduced))) {
                for (JarEntry item : in.stream().toArray(JarEntry[]::new)) {
                    if (!item.getName().startsWith("cn/kavra/video/editor/KavraTrimer")) {
                        out.putNextEntry(new JarEntry(item.getName()));
                        in.getInputStream(item).transferTo(out);
                    }
                }
            }
        }
        String output = probe(classpath.toString());
        assertTrue(output.contains("ERROR: register_cn_kavra_video_editor registration failed"), output);
        assertFalse(output.contains("register_cn_kavra_video_render registration failed"), output);
        assertTrue(output.endsWith("exit 3"), output);
    }

    @Test
    void ffmpegStaysQuietOnceLoaded() throws Exception {
        // FFmpeg would print "moov atom not found" on its own.
        String output = probe(System.getProperty("kavra.classpath"), Media.fixture("truncated_nomoov.mp4"));
        assertTrue(output.contains("loaded") && output.contains("opened: -"), output);
        assertFalse(output.contains("moov atom"), output);
        assertTrue(output.endsWith("exit 0"), output);
    }

    /** LoadProbe's output and exit status in a JVM of its own, checking JNI as this one does. */
    private static String probe(String classpath, String... args) throws Exception {
        List<String> command = new ArrayList<>(List.of(System.getProperty("kavra.java"), "-Xcheck:jni",
                "-Djava.library.path=" + System.getProperty("java.library.path"), "-cp", classpath,
                LoadProbe.class.getName()));
        command.addAll(List.of(args));
        Process process = new ProcessBuilder(command).redirectErrorStream(true).start();
        String output = new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertTrue(process.waitFor(60, TimeUnit.SECONDS));
        assertFalse(output.contains("in native method"), output);
        return output.trim() + "\nexit " + process.exitValue();
    }
}
