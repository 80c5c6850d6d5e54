#!/usr/bin/python3
"""The dashboard in headless Chromium, against information_collector with records uploaded through
the library: the page's numbers against the database's, filters, export, hostile records, and
the token off loopback. Screenshots go to the build folder. Arguments: the collector, the record
writer, the uploader, the build folder, and a PostgreSQL URL (default: SQLite in the data folder)."""
import json, os, sqlite3, ssl, subprocess, sys, tempfile, time, urllib.error, urllib.request
from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

COLLECTOR, WRITER, UPLOADER, OUT = sys.argv[1:5]
DATA = tempfile.mkdtemp(prefix='dashboard-')
DATABASE = ['--database', sys.argv[5]] if len(sys.argv) > 5 else []
ATTACHMENT = '<script>document.title="pwned"</script>'
INSECURE = ssl._create_unverified_context()


def wait_for(condition, what, seconds=30):
    deadline = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < deadline, 'no ' + what
        time.sleep(0.05)


def serve(address):
    """information_collector serve with its dashboard on `address`; its URL once it listens."""
    url_file = os.path.join(DATA, 'dashboard_url')
    if os.path.exists(url_file):
        os.remove(url_file)
    process = subprocess.Popen([COLLECTOR, 'serve', '--data-dir', DATA, '--dashboard', address] + DATABASE,
                               stdout=subprocess.PIPE, text=True)
    wait_for(lambda: os.path.exists(url_file) or process.poll() is not None, 'dashboard URL')
    url = open(url_file).read().strip()
    assert 'dashboard on ' + url in iter(lambda: process.stdout.readline().strip(), ''), 'no "dashboard on" line'
    return process, url


def fetch(url, headers={}):
    """Status, body and headers of a GET."""
    try:
        with urllib.request.urlopen(urllib.request.Request(url, headers=headers), context=INSECURE) as answer:
            return answer.status, answer.read().decode(), answer.headers
    except urllib.error.HTTPError as refused:
        return refused.code, refused.read().decode(), refused.headers


def upload_attachment(ingest_url):
    """A feedback attachment as the library sends it; its dfs_id."""
    body = ('--b\r\nContent-Disposition: form-data; name="file"; filename="log.html"\r\n\r\n'
            + ATTACHMENT + '\r\n--b--\r\n').encode()
    request = urllib.request.Request(ingest_url + '/up', body, {
        'Content-Type': 'multipart/form-data; boundary=b', 'X-Auth-AppID': '3c9d0a7e51b24f68e0a7c2d9b4f6e183'})
    with urllib.request.urlopen(request, context=INSECURE) as answer:
        return json.load(answer)['result']['dfs_id']


def upload_records(ingest_url, attachment):
    work = tempfile.mkdtemp(prefix='records-')
    os.makedirs(os.path.join(work, 'res'))
    open(os.path.join(work, 'res', 'system.ini'), 'w').write('[General]\nenable=1\nuploadintval=0\n')
    open(os.path.join(work, 'url_config.ini'), 'w').write('[General]\nupload_url=%s/dtta\n' % ingest_url)
    for command in [WRITER, work, attachment], [UPLOADER, '--dir', work, '--ca-file', os.path.join(DATA, 'ca.pem')]:
        run = subprocess.run(command, capture_output=True, text=True)
        assert run.returncode == 0, run.stdout[-3000:] + run.stderr[-3000:]


def browser():
    options = webdriver.ChromeOptions()
    options.binary_location = '/usr/bin/chromium'
    for argument in ['--headless=new', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
                     '--disable-background-networking', '--disable-component-update', '--disable-sync',
                     '--ignore-certificate-errors', '--window-size=1280,1300',
                     '--user-data-dir=' + tempfile.mkdtemp(prefix='chromium-')]:
        options.add_argument(argument)
    return webdriver.Chrome(service=Service('/usr/bin/chromedriver'), options=options)


def open_page(driver, url=None):
    """Opens `url` (or stays) and waits for the page to have shown its data."""
    if url:
        driver.get(url)
    WebDriverWait(driver, 20).until(lambda d: d.find_elements(By.CSS_SELECTOR, 'body[data-loaded]'))


def numbers(driver):
    cells = driver.find_elements(By.CSS_SELECTOR, '[data-kind]')
    return ({cell.get_attribute('data-kind'): int(cell.text) for cell in cells},
            int(driver.find_element(By.CSS_SELECTOR, '[data-total]').text))


def check_untouched(driver):
    """Hostile fields stayed text: no element or handler of theirs, the page no wider than the window."""
    assert driver.title.startswith('Records'), driver.title
    assert not driver.find_elements(By.CSS_SELECTOR, 'main img, main b, [onerror], [onmouseover]')
    own_scripts = driver.find_elements(By.CSS_SELECTOR, 'script[src^="/static/"]')
    assert len(driver.find_elements(By.TAG_NAME, 'script')) == len(own_scripts)
    assert driver.execute_script('return document.documentElement.scrollWidth <= window.innerWidth')


def main():
    collector, url = serve('127.0.0.1:0')
    driver = browser()
    try:
        ingest_url = open(os.path.join(DATA, 'url')).read().strip()
        attachment = upload_attachment(ingest_url)
        upload_records(ingest_url, attachment)
        query = 'SELECT kind, count(*) FROM records GROUP BY kind'
        if DATABASE:
            lines = subprocess.run(['psql', '-AtF,', '-c', query], check=True, capture_output=True, text=True).stdout
            kinds = {kind: int(n) for kind, n in (line.split(',') for line in lines.split())}
        else:
            kinds = dict(sqlite3.connect(os.path.join(DATA, 'records.sqlite3')).execute(query))
        assert kinds == {'usage': 1, 'calibration': 2, 'scan': 2, 'feedback': 2}, kinds

        # The overview's figures are the database's, each written out as text.
        open_page(driver, url)
        assert numbers(driver) == (kinds, sum(kinds.values())), numbers(driver)
        hostile_version = "<script>document.title='pwned'</script>"
        versions = driver.find_elements(By.CSS_SELECTOR, '.top[data-dimension=version] th')
        assert hostile_version in [c.text for c in versions]
        check_untouched(driver)
        driver.save_screenshot(os.path.join(OUT, 'dashboard-overview.png'))

        # A filter: the table shows exactly the database's calibration records; hostile cells stay in order.
        open_page(driver, url + 'records?kind=calibration')
        rows = driver.find_elements(By.CSS_SELECTOR, '#records tbody tr')
        assert int(driver.find_element(By.ID, 'count').get_attribute('data-total')) == kinds['calibration'] == len(rows)
        assert {row.find_elements(By.TAG_NAME, 'td')[2].text for row in rows} == {'calibration'}
        for row in rows:
            lefts = [cell.rect['x'] for cell in row.find_elements(By.TAG_NAME, 'td')]
            assert lefts == sorted(lefts), lefts
        for details in driver.find_elements(By.TAG_NAME, 'summary'):
            details.click()
        check_untouched(driver)
        driver.save_screenshot(os.path.join(OUT, 'dashboard-records.png'))

        # The export behind the page's link is what the command line gives for the same filter.
        link = driver.find_element(By.ID, 'export-jsonl').get_attribute('href')
        exported = driver.execute_async_script(
            'fetch(arguments[0]).then((r) => r.text()).then(arguments[1])', link)
        command_line = subprocess.run([COLLECTOR, 'export', '--data-dir', DATA, '--format', 'jsonl',
                                       '--kind', 'calibration'] + DATABASE,
                                      check=True, capture_output=True, text=True).stdout
        assert exported == command_line and exported.count('\n') == kinds['calibration'], exported[:300]

        # A feedback record links its attachment, which comes as a download, never as a page.
        open_page(driver, url + 'records?kind=feedback')
        link = driver.find_element(By.CSS_SELECTOR, 'a[href^="/api/v1/attachments/"]').get_attribute('href')
        status, body, headers = fetch(link)
        assert link.endswith(attachment) and (status, body) == (200, ATTACHMENT), (link, status)
        assert headers['Content-Disposition'].startswith('attachment')
        assert headers['Content-Type'] == 'application/octet-stream'
        status, body, headers = fetch(url + 'api/v1/records?limit=3&offset=5', {'Authorization': 'Bearer wrong'})
        assert status == 200 and [r['id'] for r in json.loads(body)['records']] == [6, 7]  # loopback: no token
        policy = headers['Content-Security-Policy']
        assert "script-src 'self';" in policy and 'unsafe' not in policy
    finally:
        collector.terminate()
        collector.wait()

    # Off loopback every request needs the token: as a bearer header, or the sign-in's cookie.
    addresses = subprocess.run(['hostname', '-I'], capture_output=True, text=True).stdout.split()
    address = next(a for a in addresses if '.' in a and not a.startswith('127.'))  # an IPv4 one of this machine
    collector, url = serve(address + ':0')
    try:
        token = open(os.path.join(DATA, 'dashboard.token')).read().strip()
        assert os.stat(os.path.join(DATA, 'dashboard.token')).st_mode & 0o777 == 0o600
        assert fetch(url + 'api/v1/summary')[0] == 401
        assert fetch(url + 'api/v1/records', {'Authorization': 'Bearer ' + token[:-1] + 'x'})[0] == 401
        assert fetch(url + 'api/v1/summary', {'Authorization': 'Bearer ' + token})[0] == 200
        driver.get(url)
        assert driver.current_url == url + 'login'
        driver.find_element(By.ID, 'token').send_keys(token + '\n')
        open_page(driver)
        assert numbers(driver) == (kinds, sum(kinds.values()))
        cookie, = driver.get_cookies()
        assert cookie['httpOnly'] and cookie['sameSite'] == 'Strict', cookie
    finally:
        collector.terminate()
        collector.wait()
        driver.quit()


main()
