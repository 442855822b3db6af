package kavra.junit;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import cn.kavra.video.player.common.VideoRender;

import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;
import org.junit.jupiter.api.Test;

/** Raw frames handed in as bytes and read back from the window they were shown in. */
class VideoRenderTest {
    private static final int W = 64;
    private static final int H = 48;

    private static int y(int x, int row) {
        return (x * 3 + row * 5) & 0xff;
    }

    private static int u(int x, int row) {
        return (40 + x * 7 + row) & 0xff;
    }

    private static int v(int x, int row) {
        return (220 - x - row * 3) & 0xff;
    }

    /** A W x H picture, planar (Y, U, V) or NV12 (Y, then U and V interleaved). */
    private static byte[] frame(boolean planar) {
        byte[] bytes = new byte[W * H * 3 / 2];
        for (int row = 0; row < H; row++) {
            for (int x = 0; x < W; x++) {
                bytes[row * W + x] = (byte) y(x, row);
            }
        }
        int chroma = W * H;
        for (int row = 0; row < H / 2; row++) {
            for (int x = 0; x < W / 2; x++) {
                if (planar) {
                    bytes[chroma + row * W / 2 + x] = (byte) u(x, row);
                    bytes[chroma + W * H / 4 + row * W / 2 + x] = (byte) v(x, row);
                } else {
                    bytes[chroma + row * W + 2 * x] = (byte) u(x, row);
                    bytes[chroma + row * W + 2 * x + 1] = (byte) v(x, row);
                }
            }
        }
        return bytes;
    }

    @ParameterizedTest
    @ValueSource(ints = {VideoRender.COLOR_FormatYUV420Planar, VideoRender.COLOR_FormatYUV420SemiPlanar})
    void frameBytesArriveInTheWindow(int colorFormat) {
        try (TestWindow window = new TestWindow(); VideoRender render = new VideoRender()) {
            render.setSurface(window.surface, 0);
            render.renderFrame(frame(colorFormat == VideoRender.COLOR_FormatYUV420Planar), colorFormat, W, H, 1);
            assertTrue(window.waitForQueued(1));
            render.release();
            TestWindow.Buffer shown = window.last();
            assertNotNull(shown);
            assertEquals(W, shown.width);
            assertEquals(H, shown.height);
            for (int row = 0; row < H; row++) {
                for (int x = 0; x < W; x++) {
                    assertEquals(y(x, row), shown.luma(x, row), "Y at " + x + "," + row);
                }
            }
            for (int row = 0; row < H / 2; row++) {
                for (int x = 0; x < W / 2; x++) {
                    assertEquals(u(x, row), shown.u(x, row), "U at " + x + "," + row);
                    assertEquals(v(x, row), shown.v(x, row), "V at " + x + "," + row);
                }
            }
        }
    }

    @Test
    void badInputAndReleasedRendererShowNothing() throws Exception {
        try (TestWindow window = new TestWindow(); VideoRender render = new VideoRender()) {
            render.setSurface(window.surface, 0);
            // Bytes that cannot hold the picture are refused.
            render.renderFrame(new byte[W * H], VideoRender.COLOR_FormatYUV420Planar, W, H, 1);
            render.renderFrame(null, VideoRender.COLOR_FormatYUV420Planar, W, H, 1);
            // A surface whose consumer went away cannot be shown in.
            window.abandon();
            render.setSurface(window.surface, 0);
            render.renderFrame(frame(true), VideoRender.COLOR_FormatYUV420Planar, W, H, 1);
            render.setSurface(null, 0);
            render.renderFrame(frame(true), VideoRender.COLOR_FormatYUV420Planar, W, H, 1);
            render.release();
            render.release();
            render.renderFrame(frame(true), VideoRender.COLOR_FormatYUV420Planar, W, H, 1);
            render.flush();
            assertEquals(0, window.queuedCount());
        }
    }
}
