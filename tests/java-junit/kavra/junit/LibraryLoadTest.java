package kavra.junit;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import cn.kavra.video.editor.KavraTrimer;
import cn.kavra.video.editor.VideoItem;
import cn.kavra.video.player.common.KavraPlayer;
import cn.kavra.video.player.common.VideoRender;

import java.io.File;
import java.io.FileOutputStream;
import java.io.InputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.Enumeration;
import java.util.concurrent.TimeUnit;
import java.util.jar.JarEntry;
import java.util.jar.JarFile;
import java.util.jar.JarOutputStream;

import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** Loading the library registers the native methods of the four classes, or refuses to load. */
class LibraryLoadTest {
    @Test
    void everyClassInitialises() throws Exception {
        // Initialising a class loads the library, which registers the
        // natives of all four, and runs the class's own native look-ups;
        // a failure of either throws here.
        for (Class<?> cls : new Class<?>[] {KavraPlayer.class, VideoItem.class, KavraTrimer.class, VideoRender.class}) {
            Class.forName(cls.getName(), true, cls.getClassLoader());
        }
    }

    /** The product jar without the trimmer class, in a new JVM: loading fails, blamed on the editor. */
    @Test
    void missingTrimmerClassRefusesTheLibrary(@TempDir Path dir) throws Exception {
        String classpath = System.getProperty("kavra.classpath");
        StringBuilder reduced = new StringBuilder();
        for (String entry : classpath.split(File.pathSeparator)) {
            if (entry.endsWith(".jar")) {
                File jar = dir.resolve("without-trimmer.jar").toFile();
                copyJarWithout(new File(entry), jar, "cn/kavra/video/editor/KavraTrimer");
                entry = jar.getPath();
            }
            reduced.append(reduced.length() == 0 ? "" : File.pathSeparator).append(entry);
        }
        Process process = new ProcessBuilder(System.getProperty("kavra.java"), "-Xcheck:jni",
                "-Djava.library.path=" + System.getProperty("java.library.path"),
                "-cp", reduced.toString(), LoadProbe.class.getName())
                .redirectErrorStream(true).start();
        String output = new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertTrue(process.waitFor(60, TimeUnit.SECONDS));
        assertEquals(3, process.exitValue(), output);
        assertTrue(output.contains("ERROR: register_cn_kavra_video_editor registration failed"), output);
        assertFalse(output.contains("register_cn_kavra_video_render registration failed"), output);
        assertFalse(output.contains("in native method"), output);
    }

    private static void copyJarWithout(File source, File target, String classPrefix) throws Exception {
        try (JarFile in = new JarFile(source); JarOutputStream out = new JarOutputStream(new FileOutputStream(target))) {
            for (Enumeration<JarEntry> entries = in.entries(); entries.hasMoreElements();) {
                JarEntry entry = entries.nextElement();
                if (entry.getName().startsWith(classPrefix)) {
                    continue;
                }
                out.putNextEntry(new JarEntry(entry.getName()));
                try (InputStream data = in.getInputStream(entry)) {
                    data.transferTo(out);
                }
                out.closeEntry();
            }
        }
    }
}
