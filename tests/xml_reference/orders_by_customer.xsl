<?xml version="1.0"?>
<!-- Order totals grouped by customer with a key (Muenchian grouping). -->
<xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform">
  <xsl:output method="xml" omit-xml-declaration="yes"/>
  <xsl:key name="by-customer" match="order" use="@customer"/>
  <xsl:template match="/">
    <customers>
      <xsl:for-each select="//order[generate-id() = generate-id(key('by-customer', @customer)[1])]">
        <xsl:sort select="@customer"/>
        <customer id="{@customer}" orders="{count(key('by-customer', @customer))}">
          <xsl:for-each select="key('by-customer', @customer)/item">
            <line sku="{@sku}" amount="{@qty * @price}"/>
          </xsl:for-each>
        </customer>
      </xsl:for-each>
    </customers>
  </xsl:template>
</xsl:stylesheet>
