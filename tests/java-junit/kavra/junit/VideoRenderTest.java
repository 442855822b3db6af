package kavra.junit;

import static cn.kavra.video.player.common.VideoRender.COLOR_FormatYUV420Planar;
import static cn.kavra.video.player.common.VideoRender.COLOR_FormatYUV420SemiPlanar;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import cn.kavra.video.player.common.VideoRender;

import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** Raw frames handed in as bytes and read back from the window they were shown in. */
class VideoRenderTest {
    private static final int W = 64;
    private static final int H = 48;

    /** Sample of plane 0 (Y), 1 (U) or 2 (V) at (x, y): a different pattern in each. */
    private static int sample(int plane, int x, int y) {
        return (40 * plane + x * (3 + plane) + y * (5 - plane)) & 0xff;
    }

    /** A W x H picture, planar (Y, U, V) or NV12 (Y, then U and V interleaved). */
    private static byte[] frame(boolean planar) {
        byte[] bytes = new byte[W * H * 3 / 2];
        for (int y = 0; y < H; y++) {
            for (int x = 0; x < W; x++) {
                bytes[y * W + x] = (byte) sample(0, x, y);
                if (x < W / 2 && y < H / 2) {
                    for (int plane = 1; plane <= 2; plane++) {
                        int at = planar ? (plane - 1) * W * H / 4 + y * W / 2 + x : y * W + 2 * x + plane - 1;
                        bytes[W * H + at] = (byte) sample(plane, x, y);
                    }
                }
            }
        }
        return bytes;
    }

    @ParameterizedTest
    @ValueSource(ints = {COLOR_FormatYUV420Planar, COLOR_FormatYUV420SemiPlanar})
    void frameBytesArriveInTheWindow(int colorFormat) throws Exception {
        try (TestWindow window = new TestWindow(); VideoRender render = new VideoRender()) {
            render.setSurface(window.surface, 0);
            render.renderFrame(frame(colorFormat == COLOR_FormatYUV420Planar), colorFormat, W, H, 1);
            assertTrue(Media.await(() -> window.queuedCount() > 0, 5000));
            render.release();
            TestWindow.Buffer shown = window.last();
            assertEquals(W + "x" + H, shown.width + "x" + shown.height);
            for (int y = 0; y < H; y++) {
                for (int x = 0; x < W; x++) {
                    assertEquals(sample(0, x, y), shown.luma(x, y), "Y at " + x + "," + y);
                    if (x < W / 2 && y < H / 2) {
                        assertEquals(sample(1, x, y), shown.chroma(1, x, y), "U at " + x + "," + y);
                        assertEquals(sample(2, x, y), shown.chroma(0, x, y), "V at " + x + "," + y);
                    }
                }
            }
        }
    }

    @Test
    void badInputAndReleasedRendererShowNothing() {
        try (TestWindow window = new TestWindow(); VideoRender render = new VideoRender()) {
            render.setSurface(window.surface, 0);
            // Bytes that cannot hold the picture are refused.
            render.renderFrame(new byte[W * H], COLOR_FormatYUV420Planar, W, H, 1);
            render.renderFrame(null, COLOR_FormatYUV420Planar, W, H, 1);
            // A surface whose consumer went away cannot be shown in.
            window.abandon();
            render.setSurface(window.surface, 0);
            render.renderFrame(frame(true), COLOR_FormatYUV420Planar, W, H, 1);
            render.setSurface(null, 0);
            render.renderFrame(frame(true), COLOR_FormatYUV420Planar, W, H, 1);
            render.release();
            render.release();
            render.renderFrame(frame(true), COLOR_FormatYUV420Planar, W, H, 1);
            render.flush();
            assertEquals(0, window.queuedCount());
        }
    }
}
