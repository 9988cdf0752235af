"""What tests of the sibling pages share."""

from program import run

INFORMATION = "/srv/vemo/htdocs/channeldeviceconfig.cgi"
REBOOT = "/srv/vemo/htdocs/reboot.cgi"


def show(request):
    """The page that answers the request, whole and successful."""
    result = run(request)
    assert result.status == 0, result.error
    assert result.page.startswith("Content-Type: text/html\n\n")
    assert result.page.endswith("</div>\n</body>\n</html>\n")
    return result.page


def expect_texts(page, *present, absent=()):
    for text in present:
        assert text in page
    for text in absent:
        assert text not in page
