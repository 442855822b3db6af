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
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
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
        // Initialising a class loads the library, which registers the natives
        // of all four; a failure throws here.
        for (Class<?> cls : new Class<?>[] {KavraPlayer.class, VideoItem.class, KavraTrimer.class, VideoRender.class}) {
            Class.forName(cls.getName(), true, cls.getClassLoader());
        }
    }

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
        Process process = new ProcessBuilder(System.getProperty("kavra.java"), "-Xcheck:jni",
                "-Djava.library.path=" + System.getProperty("java.library.path"),
                "-cp", classpath.toString(), LoadProbe.class.getName()).redirectErrorStream(true).start();
        String output = new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertTrue(process.waitFor(60, TimeUnit.SECONDS));
        assertEquals(3, process.exitValue(), output);
        assertTrue(output.contains("ERROR: register_cn_kavra_video_editor registration failed"), output);
        assertFalse(output.contains("register_cn_kavra_video_render registration failed"), output);
        assertFalse(output.contains("in native method"), output);
    }
}
